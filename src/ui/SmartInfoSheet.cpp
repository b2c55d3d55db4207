#include "ui/SmartInfoSheet.h"
#include "ui/QtText.h"

#include <QDialogButtonBox>
#include <QFormLayout>
#include <QHeaderView>
#include <QPushButton>
#include <QVBoxLayout>

namespace vantorix::ui {
SmartInfoSheet::SmartInfoSheet(const dashboard::SmartSheetPayload& payload, QWidget* parent)
    : QDialog(parent), title_(new QLabel(this)), rows_(new QTableWidget(this)) {
    const auto content = dashboard::smartSheetContent(payload);
    setObjectName(QStringLiteral("smartInfoSheet"));
    setWindowTitle(qText(content.title));
    setWindowModality(Qt::WindowModal);
    setAttribute(Qt::WA_DeleteOnClose);
    resize(620, 640);
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
    auto* note = new QLabel(qText(content.note), this);
    note->setWordWrap(true);
    layout->addWidget(note);
    if (!content.summaryRows.empty()) {
        auto* summary = new QFormLayout();
        QFont bold = font();
        bold.setWeight(QFont::DemiBold);
        for (const auto& [label, value] : content.summaryRows) {
            auto* valueLabel = new QLabel(qText(value), this);
            valueLabel->setFont(bold);
            valueLabel->setTextInteractionFlags(Qt::TextSelectableByMouse);
            summary->addRow(qText(label), valueLabel);
        }
        layout->addLayout(summary);
    }
    if (content.detailRows.empty()) {
        rows_->hide();
        auto* empty = new QLabel(qText(content.emptyNote), this);
        empty->setObjectName(QStringLiteral("smartEmptyNote"));
        empty->setWordWrap(true);
        layout->addWidget(empty);
        layout->addStretch(1);
    } else {
        rows_->setColumnCount(2);
        rows_->setRowCount(static_cast<int>(content.detailRows.size()));
        rows_->horizontalHeader()->hide();
        rows_->verticalHeader()->hide();
        rows_->setEditTriggers(QAbstractItemView::NoEditTriggers);
        rows_->setSelectionBehavior(QAbstractItemView::SelectRows);
        rows_->setAlternatingRowColors(true);
        rows_->setShowGrid(false);
        rows_->setWordWrap(true);
        for (std::size_t i = 0; i < content.detailRows.size(); ++i) {
            const auto row = static_cast<int>(i);
            rows_->setItem(row, 0, new QTableWidgetItem(qText(content.detailRows[i].first)));
            rows_->setItem(row, 1, new QTableWidgetItem(qText(content.detailRows[i].second)));
        }
        rows_->horizontalHeader()->setSectionResizeMode(0, QHeaderView::ResizeToContents);
        rows_->horizontalHeader()->setSectionResizeMode(1, QHeaderView::Stretch);
        layout->addWidget(rows_, 1);
    }
    auto* buttons = new QDialogButtonBox(this);
    auto* ok = buttons->addButton(qText(content.closeButton), QDialogButtonBox::AcceptRole);
    ok->setDefault(true);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    layout->addWidget(buttons);
}

}  // namespace vantorix::ui
