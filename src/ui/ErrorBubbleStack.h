#pragma once

#include <QLabel>
#include <QWidget>

#include <vector>

#include "dashboard/MessageBubbles.h"

namespace vantorix::ui {

// One message: a white symbol and the text on red (error) or green (success).
class ErrorBannerView final : public QWidget {
    Q_OBJECT
public:
    ErrorBannerView(const dashboard::BubblePayload& payload, QWidget* parent = nullptr);
    dashboard::BubblePayload::Style style() const { return style_; }
    QString message() const { return text_->text(); }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    dashboard::BubblePayload::Style style_;
    QLabel* text_;
};

// The bubbles at the top of the dashboard, in their order; hidden when there are none.
class ErrorBubbleStack final : public QWidget {
    Q_OBJECT
public:
    explicit ErrorBubbleStack(QWidget* parent = nullptr);
    void setMessages(const std::vector<dashboard::BubblePayload>& messages);
    std::vector<ErrorBannerView*> banners() const;

private:
    std::vector<std::pair<std::string, dashboard::BubblePayload::Style>> shown_;
};

}  // namespace vantorix::ui
