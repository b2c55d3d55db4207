#include "ui/FeedbackFormView.h"

#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QTextCursor>
#include <QVBoxLayout>

#include "dashboard/ShellTexts.h"
#include "services/ServiceTexts.h"
#include "ui/QtText.h"

namespace vantorix::ui {
namespace {

constexpr services::FeedbackType kTypes[] = {services::FeedbackType::suggestion, services::FeedbackType::bug,
                                             services::FeedbackType::feature, services::FeedbackType::other};

}  // namespace

FeedbackFormView::FeedbackFormView(std::shared_ptr<services::FeedbackSubmitter> submitter, QWidget* parent)
    : QWidget(parent), submitter_(std::move(submitter)) {
    setObjectName(QStringLiteral("feedbackFormView"));
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(24, 24, 24, 24);
    layout->setSpacing(12);

    auto* typeRow = new QFormLayout();
    type_ = new QComboBox(this);
    type_->setObjectName(QStringLiteral("feedbackType"));
    for (const auto type : kTypes) type_->addItem(qText(services::feedbackTypeLabel(type)), static_cast<int>(type));
    typeRow->addRow(qText(services::feedbackTypePickerLabel()), type_);
    layout->addLayout(typeRow);

    title_ = new QLineEdit(this);
    title_->setObjectName(QStringLiteral("feedbackTitle"));
    title_->setPlaceholderText(qText(services::titlePlaceholder()));
    title_->setClearButtonEnabled(true);
    connect(title_, &QLineEdit::textChanged, this, &FeedbackFormView::limitTitle);
    layout->addWidget(title_);

    content_ = new QPlainTextEdit(this);
    content_->setObjectName(QStringLiteral("feedbackContent"));
    content_->setPlaceholderText(qText(services::contentPlaceholder()));
    content_->setTabChangesFocus(true);
    connect(content_, &QPlainTextEdit::textChanged, this, &FeedbackFormView::limitContent);
    layout->addWidget(content_, 1);

    email_ = new QLineEdit(this);
    email_->setObjectName(QStringLiteral("feedbackEmail"));
    email_->setPlaceholderText(qText(services::emailPlaceholder()));
    email_->setClearButtonEnabled(true);
    email_->setInputMethodHints(Qt::ImhEmailCharactersOnly);
    connect(email_, &QLineEdit::returnPressed, this, &FeedbackFormView::submit);
    layout->addWidget(email_);

    auto* actions = new QHBoxLayout();
    actions->addStretch(1);
    busy_ = new QProgressBar(this);
    busy_->setObjectName(QStringLiteral("submitProgress"));
    busy_->setRange(0, 0);
    busy_->setTextVisible(false);
    busy_->setFixedWidth(72);
    busy_->setAccessibleName(qText(services::submitting()));
    busy_->hide();
    actions->addWidget(busy_);
    submit_ = new QPushButton(qText(services::submitButton()), this);
    submit_->setObjectName(QStringLiteral("submitButton"));
    submit_->setDefault(true);
    connect(submit_, &QPushButton::clicked, this, &FeedbackFormView::submit);
    actions->addWidget(submit_);
    layout->addLayout(actions);

    setTabOrder(type_, title_);
    setTabOrder(title_, content_);
    setTabOrder(content_, email_);
    setTabOrder(email_, submit_);
    setFocusProxy(title_);
    title_->setFocus();
}

FeedbackFormView::~FeedbackFormView() { alive_.reset(); }

services::FeedbackForm FeedbackFormView::form() const {
    services::FeedbackForm form;
    form.type = static_cast<services::FeedbackType>(type_->currentData().toInt());
    form.title = title_->text().toStdString();
    form.content = content_->toPlainText().toStdString();
    form.contactEmail = email_->text().toStdString();
    return form;
}

// Typing past the limit drops what is too much; a paste keeps its first characters.
void FeedbackFormView::limitTitle() {
    const std::string text = title_->text().toStdString();
    const std::string limited = services::limitCharacters(text, services::FeedbackLimits::titleMax);
    if (limited.size() == text.size()) return;
    const int cursor = title_->cursorPosition();
    title_->setText(QString::fromStdString(limited));
    title_->setCursorPosition(std::min(cursor, static_cast<int>(title_->text().size())));
}

void FeedbackFormView::limitContent() {
    const std::string text = content_->toPlainText().toStdString();
    const std::string limited = services::limitCharacters(text, services::FeedbackLimits::contentMax);
    if (limited.size() == text.size()) return;
    const int cursor = content_->textCursor().position();
    content_->setPlainText(QString::fromStdString(limited));
    QTextCursor moved = content_->textCursor();
    moved.setPosition(std::min(cursor, static_cast<int>(content_->toPlainText().size())));
    content_->setTextCursor(moved);
}

void FeedbackFormView::setSubmitting(bool submitting) {
    busy_->setVisible(submitting);
    submit_->setText(qText(submitting ? services::submitting() : services::submitButton()));
}

void FeedbackFormView::submit() {
    // A press while a request is in flight does nothing.
    const bool taken = submitter_->submit(
        form(), [this, alive = std::weak_ptr<bool>(alive_)](const services::FeedbackOutcome& outcome) {
            if (alive.expired()) return;
            finish(outcome);
        });
    if (taken && submitter_->isSubmitting()) setSubmitting(true);
}

void FeedbackFormView::finish(const services::FeedbackOutcome& outcome) {
    setSubmitting(false);
    if (outcome.resetForm) {
        type_->setCurrentIndex(0);
        title_->clear();
        content_->clear();
        email_->clear();
        title_->setFocus();
    }
    if (alert_) alert_->close();
    auto* alert = new QMessageBox(QMessageBox::Information, qText(services::noticeTitle()), qText(outcome.message),
                                  QMessageBox::NoButton, this);
    alert->setObjectName(QStringLiteral("feedbackNotice"));
    alert->addButton(qText(dashboard::okButton()), QMessageBox::AcceptRole);
    alert->setAttribute(Qt::WA_DeleteOnClose);
    alert_ = alert;
    alert->open();
    Q_EMIT alertShown(alert->text());
}

}  // namespace vantorix::ui
