#pragma once

#include <QComboBox>
#include <QLineEdit>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPointer>
#include <QProgressBar>
#include <QPushButton>
#include <QWidget>

#include <memory>

#include "services/Feedback.h"

namespace vantorix::ui {

// The Feedback window's content: the type picker, the title, content and e-mail fields, and
// "Submit" with a busy indicator while the request is in flight; the answer opens the "Notice"
// alert, and an accepted submission empties the form.
class FeedbackFormView final : public QWidget {
    Q_OBJECT
public:
    explicit FeedbackFormView(std::shared_ptr<services::FeedbackSubmitter> submitter, QWidget* parent = nullptr);
    ~FeedbackFormView() override;

    QComboBox* typePicker() const { return type_; }
    QLineEdit* titleField() const { return title_; }
    QPlainTextEdit* contentField() const { return content_; }
    QLineEdit* emailField() const { return email_; }
    QPushButton* submitButton() const { return submit_; }
    QProgressBar* progressIndicator() const { return busy_; }
    QMessageBox* openAlert() const { return alert_; }

    // The form as it stands (type and the three texts, limits applied).
    services::FeedbackForm form() const;

Q_SIGNALS:
    void alertShown(const QString& text);

private:
    void submit();
    void finish(const services::FeedbackOutcome& outcome);
    void limitTitle();
    void limitContent();
    void setSubmitting(bool submitting);

    std::shared_ptr<services::FeedbackSubmitter> submitter_;
    QComboBox* type_ = nullptr;
    QLineEdit* title_ = nullptr;
    QPlainTextEdit* content_ = nullptr;
    QLineEdit* email_ = nullptr;
    QPushButton* submit_ = nullptr;
    QProgressBar* busy_ = nullptr;
    QPointer<QMessageBox> alert_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace vantorix::ui
