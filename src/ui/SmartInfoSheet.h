#pragma once

#include <QDialog>
#include <QLabel>
#include <QTableWidget>
#include <QTimer>

#include <memory>
#include <string>

#include "dashboard/SmartSheetContent.h"
#include "health/HealthRecorder.h"

namespace vantorix::ui {

class HealthHistoryCanvas;
class SegmentedControl;

// Where the SMART sheet reads the drive's history: the program's recorder, and the kernel name the
// drive's readings are recorded under (the selected volume's device). Without a recorder the sheet
// shows no history.
struct SmartHistorySource {
    std::shared_ptr<health::HealthRecorder> recorder;
    std::string deviceName;
};

// The SMART details of the selected volume in a window-modal sheet: title, note, summary, the
// rows (or a note that there are none) and an OK button that closes it. Open it with open().
// With a history source, a switch above the rows turns to the drive's history: its figures over
// time and their growth since the baselines, read on the recorder's queue and shown when they
// arrive, so the main thread never waits for the file.
class SmartInfoSheet final : public QDialog {
    Q_OBJECT
public:
    SmartInfoSheet(const dashboard::SmartSheetPayload& payload, QWidget* parent, SmartHistorySource history = {});
    QTableWidget* rows() const { return rows_; }
    QString titleText() const { return title_->text(); }

    // The history's parts; the switch is null without a history source.
    SegmentedControl* viewSwitch() const { return switch_; }
    HealthHistoryCanvas* historyCanvas() const { return canvas_; }
    // "Reading the history…", no history yet, or why it could not be read; hidden with charts.
    QLabel* historyState() const { return state_; }
    QLabel* historyGrowth() const { return growth_; }
    const std::string& deviceName() const { return history_.deviceName; }

    // Reads the history again, a few seconds later, with whatever else was stored meanwhile: a
    // reading of the drive was stored. (A drive whose figures change every second would otherwise
    // have its whole history read every second while the sheet is open.)
    void reloadHistory();
    static constexpr int kReloadDelayMs = 5000;

Q_SIGNALS:
    // An answer of the recorder is on show.
    void historyShown();

private:
    QWidget* makeHistoryPage();
    void loadHistory();
    void showHistory(std::optional<health::DriveHistory> history);

    SmartHistorySource history_;
    QLabel* title_;
    QTableWidget* rows_;
    SegmentedControl* switch_ = nullptr;
    HealthHistoryCanvas* canvas_ = nullptr;
    QLabel* state_ = nullptr;
    QLabel* note_ = nullptr;
    QLabel* growth_ = nullptr;
    QTimer reloadTimer_;
};

}  // namespace vantorix::ui
