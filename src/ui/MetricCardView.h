#pragma once

#include <QFrame>
#include <QHash>
#include <QLabel>

#include <vector>

#include "dashboard/MetricCards.h"

namespace vantorix::ui {

// A card's value: one line of text, painted like a label's. A new text repaints the line; the layout
// hears of it only when the text's width crosses a step of the width it asked for, so that a figure
// changing every frame does not lay out the window every frame.
class CardValueText final : public QWidget {
    Q_OBJECT
public:
    explicit CardValueText(QWidget* parent = nullptr) : QWidget(parent) {}
    void setText(const QString& text);
    QString text() const { return text_; }
    // The solid colour the value is painted on; until one is set, the value is painted over its parent.
    void setBackground(const QColor& colour);
    QSize sizeHint() const override;
    QSize minimumSizeHint() const override { return sizeHint(); }

protected:
    void paintEvent(QPaintEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    int steppedWidth() const;

    static constexpr qsizetype kShapesKept = 64;

    QString text_;
    QColor background_;
    mutable int hintWidth_ = 0;  // the widest the size hints gave
    mutable QChar widestDigit_;  // null until measured in the current font
    mutable QHash<QString, int> shapeWidths_;
};

// One live figure: its symbol in the card's accent colour, title, value and footer.
class MetricCardView final : public QFrame {
    Q_OBJECT
public:
    explicit MetricCardView(QWidget* parent = nullptr);
    void setContent(const dashboard::MetricCardContent& content);
    QString title() const { return title_->text(); }
    QString value() const { return value_->text(); }

protected:
    void paintEvent(QPaintEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    void refreshSymbol();

    QLabel* symbol_;
    QLabel* title_;
    CardValueText* value_;
    QLabel* footer_;
    std::string symbolName_;
    dashboard::AccentColor accent_ = dashboard::AccentColor::blue;
};

// The row of cards, reflowing into as many columns as fit.
class MetricsDashboardSection final : public QWidget {
    Q_OBJECT
public:
    explicit MetricsDashboardSection(QWidget* parent = nullptr);
    void setCards(const std::vector<dashboard::MetricCardContent>& cards);
    std::vector<MetricCardView*> visibleCards() const;

    // Room for two columns (the narrowest arrangement) and the rows that then takes.
    QSize minimumSizeHint() const override;

protected:
    void resizeEvent(QResizeEvent* event) override;

private:
    void arrange();

    std::vector<MetricCardView*> cards_;
    std::size_t shown_ = 0;
    int columns_ = 0;
};

}  // namespace vantorix::ui
