#include "ui/PerformanceMetricsStrip.h"

#include <QHBoxLayout>
#include <QVBoxLayout>
#include <algorithm>

#include "dashboard/AccentColor.h"
#include "ui/Appearance.h"
#include "ui/QtText.h"
#include "ui/Symbols.h"

namespace vantorix::ui {
PerformanceMetricsStrip::PerformanceMetricsStrip(QWidget* parent)
    : QWidget(parent),
      heading_(new QLabel(this)),
      payload_(new QLabel(this)),
      itemsBox_(new QWidget(this)),
      items_(new QGridLayout(itemsBox_)),
      warningRow_(new QWidget(this)),
      warningSymbol_(new QLabel(warningRow_)),
      warning_(new QLabel(warningRow_)) {
    setObjectName(QStringLiteral("performanceMetricsStrip"));
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(6);
    QFont bold = font();
    bold.setWeight(QFont::DemiBold);
    heading_->setFont(bold);
    layout->addWidget(heading_);
    payload_->setWordWrap(true);
    payload_->setObjectName(QStringLiteral("performancePayload"));
    layout->addWidget(payload_);
    items_->setContentsMargins(0, 0, 0, 0);
    items_->setHorizontalSpacing(8);
    items_->setVerticalSpacing(4);
    items_->setColumnStretch(2, 1);
    layout->addWidget(itemsBox_);
    auto* warningLayout = new QHBoxLayout(warningRow_);
    warningLayout->setContentsMargins(0, 0, 0, 0);
    warningLayout->setSpacing(6);
    warningSymbol_->setAlignment(Qt::AlignTop);
    warningLayout->addWidget(warningSymbol_);
    warning_->setWordWrap(true);
    warning_->setTextFormat(Qt::PlainText);
    warning_->setObjectName(QStringLiteral("performanceWarning"));
    warningLayout->addWidget(warning_, 1);
    layout->addWidget(warningRow_);
    warningRow_->hide();
}

void PerformanceMetricsStrip::setContent(const MetricItem& heading, const std::string& payloadDescription,
                                         const std::vector<MetricItem>& items,
                                         const std::optional<std::string>& warning) {
    heading_->setText(qText(heading.title));
    payload_->setText(qText(payloadDescription));
    const QColor text = palette().color(QPalette::WindowText);
    // Set again only when it changes: a pixmap set repaints, even the same one, once per frame.
    if (warning && warning != shownWarning_) {
        const QColor orange = accentColor(dashboard::AccentColor::orange);
        warningSymbol_->setPixmap(symbolPixmap(PerformanceMetrics::warningIcon(), orange, 14, devicePixelRatioF()));
        warning_->setText(qText(*warning));
        QPalette palette = warning_->palette();
        palette.setColor(QPalette::WindowText, orange);
        warning_->setPalette(palette);
    }
    shownWarning_ = warning;
    warningRow_->setVisible(warning.has_value());
    if (items == shownItems_) return;
    // An item without a title is a line of its own: its value spans the title's column and wraps.
    const auto spans = [](const MetricItem& item) { return item.title.empty(); };
    const bool sameShape = std::equal(items.begin(), items.end(), shownItems_.begin(), shownItems_.end(),
                                      [&](const MetricItem& a, const MetricItem& b) { return spans(a) == spans(b); });
    shownItems_ = items;
    if (!sameShape) {
        while (auto* child = items_->takeAt(0)) {
            delete child->widget();
            delete child;
        }
    }
    for (std::size_t i = 0; i < items.size(); ++i) {
        const auto row = static_cast<int>(i);
        const auto& item = items[i];
        QLabel* symbol = nullptr;
        QLabel* title = nullptr;
        QLabel* value = nullptr;
        if (sameShape) {
            symbol = static_cast<QLabel*>(items_->itemAtPosition(row, 0)->widget());
            title = static_cast<QLabel*>(items_->itemAtPosition(row, spans(item) ? 3 : 1)->widget());
            value = static_cast<QLabel*>(items_->itemAtPosition(row, 2)->widget());
        } else {
            symbol = new QLabel(itemsBox_);
            title = new QLabel(itemsBox_);
            value = new QLabel(itemsBox_);
            items_->addWidget(symbol, row, 0);
            if (spans(item)) {
                title->hide();
                value->setWordWrap(true);
                value->setTextFormat(Qt::PlainText);
                items_->addWidget(value, row, 1, 1, 2);
                items_->addWidget(title, row, 3);
            } else {
                value->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
                items_->addWidget(title, row, 1);
                items_->addWidget(value, row, 2);
            }
        }
        const bool highlight = item.style == MetricItem::Style::highlight;
        const QColor ink = item.style == MetricItem::Style::placeholder ? withOpacity(text, 0.5) : text;
        // A warning's symbol is orange, as the warning's text is.
        const QColor symbolInk = item.icon == PerformanceMetrics::warningIcon()
                                     ? accentColor(dashboard::AccentColor::orange)
                                 : highlight ? accentColor(dashboard::AccentColor::indigo)
                                             : withOpacity(text, 0.7);
        symbol->setPixmap(symbolPixmap(item.icon, symbolInk, 14, devicePixelRatioF()));
        title->setText(qText(item.title));
        value->setText(qText(item.value));
        QPalette palette = value->palette();
        palette.setColor(QPalette::WindowText, ink);
        value->setPalette(palette);
        QFont font = value->font();
        font.setWeight(highlight ? QFont::Bold : QFont::Normal);
        value->setFont(font);
    }
}

QStringList PerformanceMetricsStrip::itemTexts() const {
    QStringList texts;
    for (const auto& item : shownItems_)
        texts << qText(item.title.empty() ? item.value : item.title + ": " + item.value);
    return texts;
}

}  // namespace vantorix::ui
