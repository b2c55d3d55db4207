#include "ui/VolumeControlPanel.h"

#include <QGridLayout>
#include <QPainter>
#include <QPainterPath>
#include <QVBoxLayout>

#include "text/Language.h"
#include "ui/Appearance.h"
#include "ui/Symbols.h"

namespace vantorix::ui {
namespace {

QString qText(const std::string& text) { return QString::fromStdString(text); }

InteractiveButton* button(const char* name, QWidget* parent) {
    auto* result = new InteractiveButton(InteractiveButton::StyleSize::regular, parent);
    result->setObjectName(QString::fromLatin1(name));
    return result;
}

void apply(InteractiveButton* target, const dashboard::PanelButton& content) {
    target->setContent(content.label, content.symbol, content.accent, content.enabled);
}

}  // namespace

VolumeControlPanel::VolumeControlPanel(QWidget* parent)
    : QFrame(parent), heading_(new QLabel(this)), chooseVolume_(button("chooseVolumeButton", this)),
      monitoring_(button("monitoringButton", this)), smart_(button("smartButton", this)), smartHint_(new QLabel(this)),
      export_(button("exportButton", this)), performance_(button("performanceButton", this)),
      strip_(new PerformanceMetricsStrip(this)) {
    setObjectName(QStringLiteral("volumeControlPanel"));
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(18, 16, 18, 16);
    layout->setSpacing(10);
    QFont headingFont = font();
    headingFont.setPointSizeF(font().pointSizeF() * 1.25);
    headingFont.setWeight(QFont::Bold);
    heading_->setFont(headingFont);
    layout->addWidget(heading_);
    auto* facts = new QGridLayout();
    facts->setHorizontalSpacing(8);
    facts->setVerticalSpacing(6);
    facts->setColumnStretch(1, 1);
    for (int i = 0; i < 5; ++i) {
        InfoRow row{new QLabel(this), new QLabel(this), {}};
        row.symbol->setAlignment(Qt::AlignTop);
        row.text->setWordWrap(true);
        row.text->setTextInteractionFlags(Qt::TextSelectableByMouse);
        facts->addWidget(row.symbol, i, 0);
        facts->addWidget(row.text, i, 1);
        infoRows_.push_back(row);
    }
    layout->addLayout(facts);
    auto* controls = new QGridLayout();
    controls->setSpacing(8);
    controls->addWidget(chooseVolume_, 0, 0);
    controls->addWidget(monitoring_, 0, 1);
    controls->addWidget(smart_, 1, 0);
    controls->addWidget(export_, 1, 1);
    layout->addLayout(controls);
    smartHint_->setWordWrap(true);
    smartHint_->setObjectName(QStringLiteral("smartHint"));
    layout->addWidget(smartHint_);
    auto* separator = new QFrame(this);
    separator->setFrameShape(QFrame::HLine);
    separator->setFrameShadow(QFrame::Plain);
    layout->addWidget(separator);
    layout->addWidget(strip_);
    layout->addWidget(performance_);
    layout->addStretch(1);

    connect(chooseVolume_, &QPushButton::clicked, this, &VolumeControlPanel::selectVolumeRequested);
    connect(monitoring_, &QPushButton::clicked, this, &VolumeControlPanel::toggleMonitoringRequested);
    connect(smart_, &QPushButton::clicked, this, &VolumeControlPanel::showSmartInfoRequested);
    connect(export_, &QPushButton::clicked, this, &VolumeControlPanel::exportRequested);
    connect(performance_, &QPushButton::clicked, this, [this] {
        if (performanceRunning_) Q_EMIT stopPerformanceTestRequested();
        else Q_EMIT runPerformanceTestRequested();
    });
}

void VolumeControlPanel::setContent(const dashboard::VolumePanelContent& content) {
    heading_->setText(qText(text::localized("卷", "Volume")));
    const QColor secondary = withOpacity(palette().color(QPalette::WindowText), 0.7);
    for (std::size_t i = 0; i < infoRows_.size() && i < content.infoItems.size(); ++i) {
        auto& row = infoRows_[i];
        const auto& item = content.infoItems[i];
        if (row.icon != item.icon) {
            row.icon = item.icon;
            row.symbol->setPixmap(symbolPixmap(item.icon, secondary, 16, devicePixelRatioF()));
        }
        if (row.text->text() != qText(item.value)) row.text->setText(qText(item.value));
    }
    apply(chooseVolume_, content.chooseVolumeButton);
    apply(monitoring_, content.monitoringButton);
    apply(smart_, content.smartButton);
    apply(export_, content.exportButton);
    apply(performance_, content.performanceButton);
    performanceRunning_ = content.isPerformanceRunning;
    smartHint_->setText(qText(content.smartHint));
    strip_->setContent(content.stripHeading, content.performancePayloadDescription, content.stripItems,
                       content.performanceWarningMessage);
}

QStringList VolumeControlPanel::infoTexts() const {
    QStringList texts;
    for (const auto& row : infoRows_) texts << row.text->text();
    return texts;
}

void VolumeControlPanel::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    QPainterPath shape;
    shape.addRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), 20, 20);
    painter.fillPath(shape, palette().color(QPalette::Base));
    painter.setPen(QPen(withOpacity(palette().color(QPalette::WindowText), 0.12), 1));
    painter.drawPath(shape);
}

}  // namespace vantorix::ui
