#pragma once

#include <QLabel>
#include <QMessageBox>
#include <QPointer>
#include <QProgressBar>
#include <QPushButton>
#include <QWidget>

#include <functional>
#include <memory>
#include <string>

#include "services/UpdateCheck.h"

namespace vantorix::ui {

// The About window's content: the icon, the name, the version line, a description, the contact
// line with its QR code, and "Check Update" with its download question and information alert.
class AboutVantorixView final : public QWidget {
    Q_OBJECT
public:
    static constexpr int appIconSize = 64;
    static constexpr int qrCodeDisplaySize = 64;

    struct Dependencies {
        std::shared_ptr<services::UpdateChecker> checker;
        std::string contactLink;
        std::string version;  // "—" when unknown
        std::string build;
        // Where a download goes, and what opens it there.
        std::function<std::string()> downloadsFolder;
        std::shared_ptr<services::FileOpener> opener;
    };

    explicit AboutVantorixView(Dependencies dependencies, QWidget* parent = nullptr);
    ~AboutVantorixView() override;

    QPushButton* checkUpdateButton() const { return checkButton_; }
    // The code as shown (empty when none could be made), and the note shown instead.
    QImage qrImage() const;
    QLabel* qrFailureNote() const { return qrFailure_; }
    // The alert that is open, if any.
    QMessageBox* openAlert() const { return alert_; }

Q_SIGNALS:
    // An alert opened with this text (the download question's text for the prompt).
    void alertShown(const QString& text);
    // A download ended in this file, which was handed to the opener.
    void downloaded(const QString& path);

protected:
    void changeEvent(QEvent* event) override;
    void showEvent(QShowEvent* event) override;

private:
    void checkForUpdate();
    void showOutcome(const services::UpdateCheckOutcome& outcome);
    void showMessage(const std::string& text);
    void startDownload(const services::UpdatePrompt& prompt);
    void setBusy(const std::string& text);
    void drawQrCode();
    void muteCredit();

    Dependencies dependencies_;
    QLabel* qr_ = nullptr;
    QLabel* qrFailure_ = nullptr;
    QPushButton* checkButton_ = nullptr;
    QProgressBar* busy_ = nullptr;
    QLabel* busyText_ = nullptr;
    QLabel* credit_ = nullptr;
    QPointer<QMessageBox> alert_;
    qreal qrRatio_ = 0;
    // Held only here: answers that arrive after the view has gone see it expired.
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace vantorix::ui
