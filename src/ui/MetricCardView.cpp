#include "ui/MetricCardView.h"

#include <algorithm>

#include <QEvent>
#include <QGridLayout>
#include <QPainter>
#include <QPainterPath>
#include <QVBoxLayout>

#include "ui/Appearance.h"
#include "ui/QtText.h"
#include "ui/Symbols.h"

namespace vantorix::ui {
namespace {

constexpr int kCardMinimumWidth = 150;
constexpr int kSpacing = 12;

// The width a value asks the layout for grows and shrinks in steps of this many pixels.
constexpr int kValueWidthStep = 24;
constexpr double kAccentWash = 0.08;  // the accent colour's share in a card's colour

}  // namespace

void CardValueText::setText(const QString& text) {
    if (text == text_) return;
    text_ = text;
    // The room only grows: a figure that goes back and forth between two widths (800/s and
    // 799.6/s) then asks for one layout, not one a frame.
    if (steppedWidth() > hintWidth_) updateGeometry();
    update();
}

int CardValueText::steppedWidth() const {
    // Measured with every digit written as the widest one, so that the figures of a live value
    // share a few shapes ("00.0 MB/s"), each measured once, and the width is never too small.
    if (widestDigit_.isNull()) {
        const QFontMetrics metrics = fontMetrics();
        widestDigit_ = QLatin1Char('0');
        for (char digit = '1'; digit <= '9'; ++digit) {
            if (metrics.horizontalAdvance(QLatin1Char(digit)) > metrics.horizontalAdvance(widestDigit_))
                widestDigit_ = QLatin1Char(digit);
        }
    }
    QString shape = text_;
    for (QChar& c : shape) {
        if (c >= QLatin1Char('0') && c <= QLatin1Char('9')) c = widestDigit_;
    }
    auto known = shapeWidths_.constFind(shape);
    if (known == shapeWidths_.constEnd()) {
        if (shapeWidths_.size() >= kShapesKept) shapeWidths_.clear();
        known = shapeWidths_.insert(shape, fontMetrics().horizontalAdvance(shape));
    }
    return (*known + kValueWidthStep - 1) / kValueWidthStep * kValueWidthStep;
}

QSize CardValueText::sizeHint() const {
    // Remembered, so that setText can tell whether the layout needs to know.
    hintWidth_ = std::max(hintWidth_, steppedWidth());
    return {hintWidth_, fontMetrics().height()};
}

void CardValueText::setBackground(const QColor& colour) {
    if (colour == background_) return;
    background_ = colour;
    // Painting its own ground, the value repaints alone: the card and the window beneath it are
    // not painted again for every new figure.
    setAttribute(Qt::WA_OpaquePaintEvent, background_.isValid());
    update();
}

void CardValueText::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    if (background_.isValid()) painter.fillRect(rect(), background_);
    painter.setPen(palette().color(foregroundRole()));
    // On its baseline, centred as one line: the text is shaped but not laid out as a paragraph.
    const QFontMetrics metrics = fontMetrics();
    painter.drawText(QPoint(0, (height() - metrics.height()) / 2 + metrics.ascent()), text_);
}

void CardValueText::changeEvent(QEvent* event) {
    if (event->type() == QEvent::FontChange) {
        widestDigit_ = QChar();
        shapeWidths_.clear();
        hintWidth_ = 0;
        updateGeometry();
    }
    QWidget::changeEvent(event);
}

MetricCardView::MetricCardView(QWidget* parent)
    : QFrame(parent),
      symbol_(new QLabel(this)),
      title_(new QLabel(this)),
      value_(new CardValueText(this)),
      footer_(new QLabel(this)) {
    setObjectName(QStringLiteral("metricCard"));
    setMinimumWidth(kCardMinimumWidth);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(14, 12, 14, 12);
    layout->setSpacing(4);
    auto* header = new QHBoxLayout();
    header->setSpacing(6);
    header->addWidget(symbol_);
    header->addWidget(title_, 1);
    layout->addLayout(header);
    QFont valueFont = font();
    valueFont.setPointSizeF(font().pointSizeF() * 1.6);
    valueFont.setWeight(QFont::DemiBold);
    value_->setFont(valueFont);
    value_->setObjectName(QStringLiteral("metricValue"));
    layout->addWidget(value_);
    QFont small = font();
    small.setPointSizeF(font().pointSizeF() * 0.85);
    footer_->setFont(small);
    title_->setWordWrap(true);
    footer_->setWordWrap(true);
    layout->addWidget(footer_);
    layout->addStretch(1);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
}

void MetricCardView::setContent(const dashboard::MetricCardContent& content) {
    if (title_->text() != qText(content.title)) title_->setText(qText(content.title));
    if (value_->text() != qText(content.valueText)) value_->setText(qText(content.valueText));
    if (footer_->text() != qText(content.footer)) footer_->setText(qText(content.footer));
    const QString name = qText(content.title + " " + content.valueText);
    if (accessibleName() != name) setAccessibleName(name);
    if (content.iconSystemName != symbolName_ || content.accentColor != accent_) {
        symbolName_ = content.iconSystemName;
        accent_ = content.accentColor;
        refreshSymbol();
    }
}

void MetricCardView::refreshSymbol() {
    symbol_->setPixmap(symbolPixmap(symbolName_, accentColor(accent_), 18, devicePixelRatioF()));
    // The card's colour inside its border, where the value lies: the base with the wash over it.
    const QColor base = palette().color(QPalette::Base);
    const QColor accent = accentColor(accent_);
    const auto washed = [](double under, double over) { return under + (over - under) * kAccentWash; };
    value_->setBackground(QColor::fromRgbF(static_cast<float>(washed(base.redF(), accent.redF())),
                                           static_cast<float>(washed(base.greenF(), accent.greenF())),
                                           static_cast<float>(washed(base.blueF(), accent.blueF()))));
    QPalette secondary = palette();
    secondary.setColor(QPalette::WindowText, withOpacity(palette().color(QPalette::WindowText), 0.65));
    title_->setPalette(secondary);
    footer_->setPalette(secondary);
}

void MetricCardView::changeEvent(QEvent* event) {
    if (event->type() == QEvent::PaletteChange) refreshSymbol();
    QFrame::changeEvent(event);
}

void MetricCardView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    QPainterPath shape;
    shape.addRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), 14, 14);
    painter.fillPath(shape, palette().color(QPalette::Base));
    // A wash of the accent colour ties the card to its line of the graph.
    painter.fillPath(shape, withOpacity(accentColor(accent_), kAccentWash));
    painter.setPen(QPen(withOpacity(palette().color(QPalette::WindowText), 0.12), 1));
    painter.drawPath(shape);
}

MetricsDashboardSection::MetricsDashboardSection(QWidget* parent) : QWidget(parent) {
    setObjectName(QStringLiteral("metricsDashboard"));
    auto* grid = new QGridLayout(this);
    // The columns follow the width, so the section's own minimum (below) rules, not the grid's.
    grid->setSizeConstraint(QLayout::SetNoConstraint);
    grid->setContentsMargins(0, 0, 0, 0);
    grid->setSpacing(kSpacing);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Minimum);
}

void MetricsDashboardSection::setCards(const std::vector<dashboard::MetricCardContent>& cards) {
    while (cards_.size() < cards.size()) cards_.push_back(new MetricCardView(this));
    for (std::size_t i = 0; i < cards.size(); ++i) cards_[i]->setContent(cards[i]);
    if (cards.size() != shown_) {
        shown_ = cards.size();
        columns_ = 0;  // rearrange
        arrange();
        updateGeometry();
    }
}

std::vector<MetricCardView*> MetricsDashboardSection::visibleCards() const {
    return {cards_.begin(), cards_.begin() + static_cast<std::ptrdiff_t>(shown_)};
}

QSize MetricsDashboardSection::minimumSizeHint() const {
    constexpr int kNarrowestColumns = 2;
    int cardHeight = 0;
    for (const auto* card : cards_) cardHeight = std::max(cardHeight, card->minimumSizeHint().height());
    const int rows = static_cast<int>((std::max<std::size_t>(shown_, 1) + kNarrowestColumns - 1) / kNarrowestColumns);
    return {kNarrowestColumns * kCardMinimumWidth + kSpacing, rows * cardHeight + (rows - 1) * kSpacing};
}

void MetricsDashboardSection::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    arrange();
}

void MetricsDashboardSection::arrange() {
    const int fitting = std::max(1, (width() + kSpacing) / (kCardMinimumWidth + kSpacing));
    const int columns = std::min(fitting, 4);
    if (columns == columns_) return;
    columns_ = columns;
    auto* grid = static_cast<QGridLayout*>(layout());
    for (auto* card : cards_) grid->removeWidget(card);
    for (std::size_t i = 0; i < cards_.size(); ++i) {
        if (i >= shown_) {
            cards_[i]->hide();
            continue;
        }
        grid->addWidget(cards_[i], static_cast<int>(i) / columns, static_cast<int>(i) % columns);
        cards_[i]->show();
    }
    for (int c = 0; c < 4; ++c) grid->setColumnStretch(c, c < columns ? 1 : 0);
}

}  // namespace vantorix::ui
