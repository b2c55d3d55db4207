#include "ui/AboutVantorixView.h"

#include <QEvent>
#include <QHBoxLayout>
#include <QIcon>
#include <QVBoxLayout>
#include <QWindow>

#include <cmath>

#include "dashboard/ShellTexts.h"
#include "services/QrCode.h"
#include "services/ServiceTexts.h"
#include "text/Messages.h"
#include "ui/Appearance.h"
#include "ui/QtText.h"

namespace vantorix::ui {
namespace {

// Light margin around the code: readers need it, whatever the window's scheme.
constexpr int quietZone = 6;

}  // namespace

AboutVantorixView::AboutVantorixView(Dependencies dependencies, QWidget* parent)
    : QWidget(parent), dependencies_(std::move(dependencies)) {
    setObjectName(QStringLiteral("aboutVantorixView"));
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(24, 24, 24, 24);
    layout->setSpacing(10);
    layout->setAlignment(Qt::AlignTop | Qt::AlignLeft);

    auto* header = new QHBoxLayout();
    header->setSpacing(14);
    auto* icon = new QLabel(this);
    icon->setObjectName(QStringLiteral("appIcon"));
    icon->setPixmap(QIcon(QStringLiteral(":/app/vantorix.svg")).pixmap(appIconSize, appIconSize));
    icon->setFixedSize(appIconSize, appIconSize);
    header->addWidget(icon);
    auto* names = new QVBoxLayout();
    names->setSpacing(2);
    auto* name = new QLabel(QStringLiteral("Vantorix"), this);
    name->setObjectName(QStringLiteral("appName"));
    QFont titleFont = font();
    titleFont.setPointSizeF(font().pointSizeF() * 1.8);
    titleFont.setWeight(QFont::Bold);
    name->setFont(titleFont);
    names->addWidget(name);
    auto* version = new QLabel(qText(text::versionLine(dependencies_.version, dependencies_.build)), this);
    version->setObjectName(QStringLiteral("versionLine"));
    version->setTextInteractionFlags(Qt::TextSelectableByMouse);
    names->addWidget(version);
    header->addLayout(names, 1);
    layout->addLayout(header);

    auto* description = new QLabel(qText(services::aboutDescription()), this);
    description->setObjectName(QStringLiteral("aboutDescription"));
    description->setWordWrap(true);
    layout->addWidget(description);

    auto* contact = new QLabel(qText(services::contactLine(dependencies_.contactLink)), this);
    contact->setObjectName(QStringLiteral("contactLine"));
    contact->setWordWrap(true);
    contact->setTextInteractionFlags(Qt::TextSelectableByMouse);
    layout->addWidget(contact);

    qr_ = new QLabel(this);
    qr_->setObjectName(QStringLiteral("qrCode"));
    qr_->setFixedSize(qrCodeDisplaySize + 2 * quietZone, qrCodeDisplaySize + 2 * quietZone);
    qr_->setAlignment(Qt::AlignCenter);
    qr_->setStyleSheet(QStringLiteral("QLabel#qrCode { background: white; border-radius: 4px; }"));
    layout->addWidget(qr_);
    qrFailure_ = new QLabel(qText(services::qrFailureText()), this);
    qrFailure_->setObjectName(QStringLiteral("qrFailureNote"));
    qrFailure_->setWordWrap(true);
    qrFailure_->hide();
    layout->addWidget(qrFailure_);

    auto* buttons = new QHBoxLayout();
    buttons->setSpacing(10);
    checkButton_ = new QPushButton(qText(services::checkUpdateButton()), this);
    checkButton_->setObjectName(QStringLiteral("checkUpdateButton"));
    checkButton_->setDefault(true);
    connect(checkButton_, &QPushButton::clicked, this, &AboutVantorixView::checkForUpdate);
    buttons->addWidget(checkButton_);
    busy_ = new QProgressBar(this);
    busy_->setObjectName(QStringLiteral("updateProgress"));
    busy_->setRange(0, 0);  // busy, without a known end
    busy_->setTextVisible(false);
    busy_->setFixedWidth(72);
    busy_->hide();
    buttons->addWidget(busy_);
    busyText_ = new QLabel(this);
    busyText_->hide();
    buttons->addWidget(busyText_);
    buttons->addStretch(1);
    layout->addLayout(buttons);

    credit_ = new QLabel(qText(services::aboutCredit()), this);
    credit_->setObjectName(QStringLiteral("aboutCredit"));
    layout->addStretch(1);
    layout->addWidget(credit_);
    muteCredit();

    drawQrCode();
}

AboutVantorixView::~AboutVantorixView() { alive_.reset(); }

QImage AboutVantorixView::qrImage() const {
    const QPixmap pixmap = qr_->pixmap();
    return pixmap.isNull() ? QImage() : pixmap.toImage();
}

void AboutVantorixView::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    drawQrCode();  // the screen, and so its pixel ratio, is known now
}

// The credit line in the text colour at lower opacity, in the light and the dark scheme alike.
void AboutVantorixView::muteCredit() {
    QPalette muted = palette();
    muted.setColor(QPalette::WindowText, withOpacity(palette().color(QPalette::WindowText), 0.55));
    credit_->setPalette(muted);
}

void AboutVantorixView::changeEvent(QEvent* event) {
    QWidget::changeEvent(event);
    if (event->type() == QEvent::PaletteChange) muteCredit();
    if (event->type() == QEvent::ScreenChangeInternal) drawQrCode();
}

void AboutVantorixView::drawQrCode() {
    const qreal ratio = devicePixelRatioF();
    if (ratio == qrRatio_) return;
    qrRatio_ = ratio;
    const auto code = services::qrCode(dependencies_.contactLink);
    // Drawn in device pixels, so that each is wholly dark or light on a HiDPI screen too.
    const int pixels = static_cast<int>(std::lround(qrCodeDisplaySize * ratio));
    const auto bitmap = code ? services::qrBitmap(*code, pixels) : std::vector<std::uint8_t>{};
    if (bitmap.empty()) {
        qr_->hide();
        qrFailure_->show();
        return;
    }
    QImage image(pixels, pixels, QImage::Format_Grayscale8);
    for (int y = 0; y < pixels; ++y) {
        uchar* row = image.scanLine(y);
        for (int x = 0; x < pixels; ++x)
            row[x] =
                bitmap[static_cast<std::size_t>(y) * static_cast<std::size_t>(pixels) + static_cast<std::size_t>(x)]
                    ? 0
                    : 255;
    }
    QPixmap pixmap = QPixmap::fromImage(image);
    pixmap.setDevicePixelRatio(ratio);
    qr_->setPixmap(pixmap);
    qr_->show();
    qrFailure_->hide();
}

void AboutVantorixView::setBusy(const std::string& text) {
    busy_->setVisible(!text.empty());
    busyText_->setText(qText(text));
    busyText_->setVisible(!text.empty());
}

void AboutVantorixView::checkForUpdate() {
    // A press while a check runs does nothing.
    const bool started = dependencies_.checker->checkForUpdate(
        [this, alive = std::weak_ptr<bool>(alive_)](const services::UpdateCheckOutcome& outcome) {
            if (alive.expired()) return;  // the window was closed meanwhile
            setBusy("");
            showOutcome(outcome);
        });
    if (started && dependencies_.checker->isCheckingUpdate()) setBusy(services::checkingUpdate());
}

void AboutVantorixView::showOutcome(const services::UpdateCheckOutcome& outcome) {
    if (outcome.message) {
        showMessage(*outcome.message);
        return;
    }
    if (!outcome.prompt) return;
    const services::UpdatePrompt prompt = *outcome.prompt;
    if (alert_) alert_->close();
    auto* question = new QMessageBox(QMessageBox::Question, qText(services::downloadPromptTitle()),
                                     qText(text::newVersionFound(prompt.version)), QMessageBox::NoButton, this);
    question->setObjectName(QStringLiteral("downloadPrompt"));
    auto* download = question->addButton(qText(services::downloadButton()), QMessageBox::AcceptRole);
    question->addButton(qText(services::cancelButton()), QMessageBox::RejectRole);
    question->setDefaultButton(download);
    question->setAttribute(Qt::WA_DeleteOnClose);
    connect(question, &QMessageBox::buttonClicked, this, [this, download, prompt](QAbstractButton* pressed) {
        if (pressed == download) startDownload(prompt);
    });
    alert_ = question;
    question->open();
    Q_EMIT alertShown(question->text());
}

void AboutVantorixView::showMessage(const std::string& message) {
    if (alert_) alert_->close();
    auto* alert = new QMessageBox(QMessageBox::Information, qText(services::noticeTitle()), qText(message),
                                  QMessageBox::NoButton, this);
    alert->setObjectName(QStringLiteral("aboutInfoAlert"));
    alert->addButton(qText(dashboard::okButton()), QMessageBox::AcceptRole);
    alert->setAttribute(Qt::WA_DeleteOnClose);
    alert_ = alert;
    alert->open();
    Q_EMIT alertShown(alert->text());
}

void AboutVantorixView::startDownload(const services::UpdatePrompt& prompt) {
    setBusy(services::downloadingUpdate());
    const std::string folder = dependencies_.downloadsFolder();
    // The download goes on, and its file opens, even when the window is closed meanwhile.
    dependencies_.checker->download(prompt, folder,
                                    [this, alive = std::weak_ptr<bool>(alive_),
                                     opener = dependencies_.opener](const Result<std::string, std::string>& outcome) {
                                        if (outcome && opener) opener->open(outcome.value());
                                        if (alive.expired()) return;
                                        setBusy("");
                                        if (outcome) Q_EMIT downloaded(QString::fromStdString(outcome.value()));
                                        else showMessage(outcome.error());
                                    });
}

}  // namespace vantorix::ui
