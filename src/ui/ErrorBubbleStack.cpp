#include "ui/ErrorBubbleStack.h"

#include <QHBoxLayout>
#include <QPainter>
#include <QPainterPath>
#include <QVBoxLayout>

#include "ui/Appearance.h"
#include "ui/Symbols.h"

namespace vantorix::ui {

ErrorBannerView::ErrorBannerView(const dashboard::BubblePayload& payload, QWidget* parent)
    : QWidget(parent), style_(payload.style), text_(new QLabel(QString::fromStdString(payload.message), this)) {
    setObjectName(QStringLiteral("errorBanner"));
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(8, 8, 8, 8);
    layout->setSpacing(8);
    auto* symbol = new QLabel(this);
    symbol->setPixmap(symbolPixmap(dashboard::bubbleSymbol(style_), Qt::white, 16, devicePixelRatioF()));
    symbol->setAlignment(Qt::AlignTop);
    layout->addWidget(symbol);
    QPalette white = text_->palette();
    white.setColor(QPalette::WindowText, Qt::white);
    text_->setPalette(white);
    text_->setWordWrap(true);
    text_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    layout->addWidget(text_, 1);
    setAccessibleName(text_->text());
}

void ErrorBannerView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    QPainterPath shape;
    shape.addRoundedRect(QRectF(rect()), 8, 8);
    painter.fillPath(shape,
                     accentColor(style_ == dashboard::BubblePayload::Style::error ? dashboard::AccentColor::red
                                                                                  : dashboard::AccentColor::green));
}

ErrorBubbleStack::ErrorBubbleStack(QWidget* parent) : QWidget(parent) {
    setObjectName(QStringLiteral("errorBubbleStack"));
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(6);
    hide();
}

void ErrorBubbleStack::setMessages(const std::vector<dashboard::BubblePayload>& messages) {
    std::vector<std::pair<std::string, dashboard::BubblePayload::Style>> wanted;
    wanted.reserve(messages.size());
    for (const auto& message : messages) wanted.emplace_back(message.message, message.style);
    if (wanted == shown_) return;  // the same bubbles: keep them (and any selection in them)
    shown_ = std::move(wanted);
    for (auto* banner : banners()) delete banner;
    for (const auto& message : messages) layout()->addWidget(new ErrorBannerView(message, this));
    setVisible(!messages.empty());
}

std::vector<ErrorBannerView*> ErrorBubbleStack::banners() const {
    std::vector<ErrorBannerView*> result;
    for (int i = 0; i < layout()->count(); ++i) {
        if (auto* banner = qobject_cast<ErrorBannerView*>(layout()->itemAt(i)->widget())) result.push_back(banner);
    }
    return result;
}

}  // namespace vantorix::ui
