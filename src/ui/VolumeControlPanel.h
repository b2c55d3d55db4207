#pragma once

#include <QFrame>
#include <QGridLayout>
#include <QLabel>

#include <map>
#include <vector>

#include "dashboard/VolumePanelContent.h"
#include "ui/InteractiveButton.h"
#include "ui/PerformanceMetricsStrip.h"

namespace vantorix::ui {

// The volume's facts and the controls of monitoring, export, SMART and the performance test. It
// shows what the dashboard computed and reports presses as signals.
class VolumeControlPanel final : public QFrame {
    Q_OBJECT
public:
    explicit VolumeControlPanel(QWidget* parent = nullptr);
    void setContent(const dashboard::VolumePanelContent& content);

    InteractiveButton* chooseVolumeButton() const { return chooseVolume_; }
    InteractiveButton* monitoringButton() const { return monitoring_; }
    InteractiveButton* smartButton() const { return smart_; }
    InteractiveButton* exportButton() const { return export_; }
    InteractiveButton* performanceButton() const { return performance_; }
    PerformanceMetricsStrip* strip() const { return strip_; }
    // The facts as shown, in order; a link warning among them is drawn in orange.
    QStringList infoTexts() const;
    QString smartHint() const { return smartHint_->text(); }

Q_SIGNALS:
    void selectVolumeRequested();
    void toggleMonitoringRequested();
    void exportRequested();
    void showSmartInfoRequested();
    void runPerformanceTestRequested();
    void stopPerformanceTestRequested();

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    struct InfoRow {
        QLabel* symbol;
        QLabel* text;
        std::string icon;
        bool warning = false;
    };

    InfoRow& infoRow(std::size_t index);

    QLabel* heading_;
    QGridLayout* facts_;
    std::vector<InfoRow> infoRows_;  // as many as the most facts shown so far; the surplus hidden
    std::size_t shownInfoRows_ = 0;
    InteractiveButton* chooseVolume_;
    InteractiveButton* monitoring_;
    InteractiveButton* smart_;
    QLabel* smartHint_;
    InteractiveButton* export_;
    InteractiveButton* performance_;
    PerformanceMetricsStrip* strip_;
    bool performanceRunning_ = false;
};

}  // namespace vantorix::ui
