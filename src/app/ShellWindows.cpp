#include "app/ShellWindows.h"

#include <QLabel>
#include <QVBoxLayout>

#include "text/Messages.h"

namespace vantorix::app {

std::string buildVersionLine() { return text::versionLine(VANTORIX_VERSION, VANTORIX_BUILD_NUMBER); }

ShellWindow::ShellWindow(const dashboard::WindowSpec& spec, QWidget* parent)
    : QWidget(parent, Qt::Window), identifier_(spec.identifier) {
    setObjectName(QString::fromStdString(spec.identifier));
    setWindowTitle(QString::fromStdString(spec.title));
    resize(spec.defaultWidth, spec.defaultHeight);
    setAttribute(Qt::WA_DeleteOnClose);   // closing discards the content; opening again builds it afresh
    setAttribute(Qt::WA_QuitOnClose, false);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(24, 24, 24, 24);
    layout->setAlignment(Qt::AlignTop | Qt::AlignLeft);
    auto* title = new QLabel(QString::fromStdString(spec.title), this);
    QFont bold = title->font();
    bold.setPointSizeF(bold.pointSizeF() * 1.3);
    bold.setWeight(QFont::Bold);
    title->setFont(bold);
    title->setWordWrap(true);
    layout->addWidget(title);
    auto* version = new QLabel(QString::fromStdString(buildVersionLine()), this);
    version->setObjectName(QStringLiteral("versionLine"));
    version->setTextInteractionFlags(Qt::TextSelectableByMouse);
    layout->addWidget(version);
}

}  // namespace vantorix::app
