#include "ui/SmartInfoSheet.h"
#include "ui/QtText.h"

#include <QDialogButtonBox>
#include <QFormLayout>
#include <QHeaderView>
#include <QPointer>
#include <QPushButton>
#include <QStackedWidget>
#include <QVBoxLayout>

#include <chrono>
#include <utility>

#include "ui/HealthHistoryCanvas.h"
#include "ui/SegmentedControl.h"

namespace vantorix::ui {
namespace {

// The drive's current rows: note, summary, the rows or a note that there are none.
QWidget* makeNowPage(const dashboard::SmartSheetContent& content, QTableWidget* rows, QWidget* parent) {
    auto* page = new QWidget(parent);
    auto* layout = new QVBoxLayout(page);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(10);
    auto* note = new QLabel(qText(content.note), page);
    note->setWordWrap(true);
    layout->addWidget(note);
    if (!content.summaryRows.empty()) {
        auto* summary = new QFormLayout();
        QFont bold = page->font();
        bold.setWeight(QFont::DemiBold);
        for (const auto& [label, value] : content.summaryRows) {
            auto* valueLabel = new QLabel(qText(value), page);
            valueLabel->setFont(bold);
            valueLabel->setTextInteractionFlags(Qt::TextSelectableByMouse);
            summary->addRow(qText(label), valueLabel);
        }
        layout->addLayout(summary);
    }
    if (content.detailRows.empty()) {
        rows->hide();
        auto* empty = new QLabel(qText(content.emptyNote), page);
        empty->setObjectName(QStringLiteral("smartEmptyNote"));
        empty->setWordWrap(true);
        layout->addWidget(empty);
        layout->addStretch(1);
        return page;
    }
    rows->setColumnCount(2);
    rows->setRowCount(static_cast<int>(content.detailRows.size()));
    rows->horizontalHeader()->hide();
    rows->verticalHeader()->hide();
    rows->setEditTriggers(QAbstractItemView::NoEditTriggers);
    rows->setSelectionBehavior(QAbstractItemView::SelectRows);
    rows->setAlternatingRowColors(true);
    rows->setShowGrid(false);
    rows->setWordWrap(true);
    for (std::size_t i = 0; i < content.detailRows.size(); ++i) {
        const auto row = static_cast<int>(i);
        rows->setItem(row, 0, new QTableWidgetItem(qText(content.detailRows[i].first)));
        rows->setItem(row, 1, new QTableWidgetItem(qText(content.detailRows[i].second)));
    }
    rows->horizontalHeader()->setSectionResizeMode(0, QHeaderView::ResizeToContents);
    rows->horizontalHeader()->setSectionResizeMode(1, QHeaderView::Stretch);
    layout->addWidget(rows, 1);
    return page;
}

QLabel* plainLabel(QWidget* parent, const char* name) {
    auto* label = new QLabel(parent);
    label->setObjectName(QString::fromLatin1(name));
    label->setTextFormat(Qt::PlainText);  // the drive names itself
    label->setWordWrap(true);
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    return label;
}

}  // namespace

SmartInfoSheet::SmartInfoSheet(const dashboard::SmartSheetPayload& payload, QWidget* parent, SmartHistorySource history)
    : QDialog(parent), history_(std::move(history)), title_(new QLabel(this)), rows_(new QTableWidget(this)) {
    const auto content = dashboard::smartSheetContent(payload);
    setObjectName(QStringLiteral("smartInfoSheet"));
    setWindowTitle(qText(content.title));
    setWindowModality(Qt::WindowModal);
    setAttribute(Qt::WA_DeleteOnClose);
    resize(620, history_.recorder ? 700 : 640);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(20, 18, 20, 18);
    layout->setSpacing(10);
    QFont titleFont = font();
    titleFont.setPointSizeF(font().pointSizeF() * 1.35);
    titleFont.setWeight(QFont::Bold);
    title_->setFont(titleFont);
    title_->setText(qText(content.title));
    title_->setWordWrap(true);
    layout->addWidget(title_);
    QWidget* now = makeNowPage(content, rows_, this);
    if (!history_.recorder) {
        layout->addWidget(now, 1);
    } else {
        switch_ = new SegmentedControl(this);
        switch_->setObjectName(QStringLiteral("smartViewSwitch"));
        const auto names = dashboard::smartSheetViewNames();
        switch_->setLabels({qText(names[0]), qText(names[1])});
        layout->addWidget(switch_, 0, Qt::AlignLeft);
        auto* pages = new QStackedWidget(this);
        pages->addWidget(now);
        pages->addWidget(makeHistoryPage());
        connect(switch_, &SegmentedControl::currentIndexChanged, pages, &QStackedWidget::setCurrentIndex);
        layout->addWidget(pages, 1);
        reloadTimer_.setSingleShot(true);
        reloadTimer_.setInterval(kReloadDelayMs);
        connect(&reloadTimer_, &QTimer::timeout, this, &SmartInfoSheet::loadHistory);
        loadHistory();
    }
    auto* buttons = new QDialogButtonBox(this);
    auto* ok = buttons->addButton(qText(content.closeButton), QDialogButtonBox::AcceptRole);
    ok->setDefault(true);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    layout->addWidget(buttons);
}

QWidget* SmartInfoSheet::makeHistoryPage() {
    auto* page = new QWidget(this);
    auto* layout = new QVBoxLayout(page);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(10);
    state_ = plainLabel(page, "smartHistoryState");
    state_->setText(qText(dashboard::smartHistoryLoadingNote()));
    note_ = plainLabel(page, "smartHistoryNote");
    canvas_ = new HealthHistoryCanvas(page);
    canvas_->setObjectName(QStringLiteral("smartHistoryCanvas"));
    growth_ = plainLabel(page, "smartHistoryGrowth");
    layout->addWidget(state_);
    layout->addWidget(note_);
    layout->addWidget(canvas_, 1);
    layout->addWidget(growth_);
    layout->addStretch(0);
    note_->hide();
    canvas_->hide();
    growth_->hide();
    return page;
}

void SmartInfoSheet::reloadHistory() {
    if (history_.recorder && !reloadTimer_.isActive()) reloadTimer_.start();
}

void SmartInfoSheet::loadHistory() {
    // The whole history: the file keeps a year at full resolution and a reading a day before that,
    // and the chart reduces what falls into one pixel column to one stroke.
    history_.recorder->loadHistory(history_.deviceName, 0,
                                   [sheet = QPointer<SmartInfoSheet>(this)](std::optional<health::DriveHistory> found) {
                                       if (sheet) sheet->showHistory(std::move(found));
                                   });
}

void SmartInfoSheet::showHistory(std::optional<health::DriveHistory> history) {
    const bool any = history && !history->readings.empty();
    state_->setVisible(!any);
    note_->setVisible(any);
    canvas_->setVisible(any);
    growth_->setVisible(any);
    if (!any) {
        state_->setText(qText(dashboard::smartHistoryMissingNote(history_.recorder->lastError())));
        canvas_->setHistory({}, {}, 0);
    } else {
        const auto content = dashboard::smartHistoryContent(history->identity, history->growth);
        note_->setText(qText(content.note));
        QString growth;
        for (const auto& line : content.growth)
            growth += (growth.isEmpty() ? QString() : QStringLiteral("\n")) + qText(line);
        growth_->setText(growth);
        QFont font = this->font();
        font.setWeight(content.grew ? QFont::DemiBold : QFont::Normal);
        growth_->setFont(font);
        const auto now = std::chrono::duration_cast<std::chrono::seconds>(
            std::chrono::system_clock::now().time_since_epoch());
        canvas_->setHistory(std::move(history->readings), std::move(history->growth), now.count());
    }
    Q_EMIT historyShown();
}

}  // namespace vantorix::ui
