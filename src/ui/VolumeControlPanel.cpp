#include "ui/VolumeControlPanel.h"

#include <QGridLayout>
#include <QPainter>
#include <QPainterPath>
#include <QVBoxLayout>

#include "text/Language.h"
#include "ui/Appearance.h"
#include "ui/QtText.h"
#include "ui/Symbols.h"

namespace vantorix::ui {
namespace {

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
    : QFrame(parent),
      heading_(new QLabel(this)),
      facts_(new QGridLayout()),
      chooseVolume_(button("chooseVolumeButton", this)),
      monitoring_(button("monitoringButton", this)),
      smart_(button("smartButton", this)),
      smartHint_(new QLabel(this)),
      export_(button("exportButton", this)),
      performance_(button("performanceButton", this)),
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
    facts_->setHorizontalSpacing(8);
    facts_->setVerticalSpacing(6);
    facts_->setColumnStretch(1, 1);
    for (std::size_t i = 0; i < 5; ++i) infoRow(i);
    shownInfoRows_ = infoRows_.size();
    layout->addLayout(facts_);
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

VolumeControlPanel::InfoRow& VolumeControlPanel::infoRow(std::size_t index) {
    while (infoRows_.size() <= index) {
        InfoRow row{new QLabel(this), new QLabel(this), {}};
        row.symbol->setAlignment(Qt::AlignTop);
        row.text->setWordWrap(true);
        row.text->setTextInteractionFlags(Qt::TextSelectableByMouse);
        const auto at = static_cast<int>(infoRows_.size());
        facts_->addWidget(row.symbol, at, 0);
        facts_->addWidget(row.text, at, 1);
        infoRows_.push_back(row);
    }
    return infoRows_[index];
}

void VolumeControlPanel::setContent(const dashboard::VolumePanelContent& content) {
    heading_->setText(qText(text::localized("卷", "Volume")));
    const QColor secondary = withOpacity(palette().color(QPalette::WindowText), 0.7);
    const QColor orange = accentColor(dashboard::AccentColor::orange);
    for (std::size_t i = 0; i < content.infoItems.size(); ++i) {
        auto& row = infoRow(i);
        const auto& item = content.infoItems[i];
        const bool warning = item.id == "linkWarning";
        if (row.icon != item.icon || row.warning != warning) {
            row.icon = item.icon;
            row.warning = warning;
            row.symbol->setPixmap(symbolPixmap(item.icon, warning ? orange : secondary, 16, devicePixelRatioF()));
            QPalette ink;  // only the roles set here; the rest follow the panel
            if (warning) ink.setColor(QPalette::WindowText, orange);
            row.text->setPalette(ink);
        }
        if (row.text->text() != qText(item.value)) row.text->setText(qText(item.value));
        row.symbol->show();
        row.text->show();
    }
    for (std::size_t i = content.infoItems.size(); i < infoRows_.size(); ++i) {
        infoRows_[i].symbol->hide();
        infoRows_[i].text->hide();
    }
    shownInfoRows_ = content.infoItems.size();
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
    for (std::size_t i = 0; i < shownInfoRows_; ++i) texts << infoRows_[i].text->text();
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
