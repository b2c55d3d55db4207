#pragma once

#include <QDialog>
#include <QLabel>
#include <QTableWidget>

#include "dashboard/SmartSheetContent.h"

namespace vantorix::ui {

// The SMART details of the selected volume in a window-modal sheet: title, note, summary, the
// rows (or a note that there are none) and an OK button that closes it. Open it with open().
class SmartInfoSheet final : public QDialog {
    Q_OBJECT
public:
    SmartInfoSheet(const dashboard::SmartSheetPayload& payload, QWidget* parent);
    QTableWidget* rows() const { return rows_; }
    QString titleText() const { return title_->text(); }

private:
    QLabel* title_;
    QTableWidget* rows_;
};

}  // namespace vantorix::ui
