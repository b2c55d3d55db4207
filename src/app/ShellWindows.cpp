#include "app/ShellWindows.h"

#include <QIcon>
#include <QVBoxLayout>

#include "text/Messages.h"

namespace vantorix::app {

std::string buildVersionLine() { return text::versionLine(VANTORIX_VERSION, VANTORIX_BUILD_NUMBER); }

ShellWindow::ShellWindow(const dashboard::WindowSpec& spec, QWidget* content, QWidget* parent)
    : QWidget(parent, Qt::Window), identifier_(spec.identifier) {
    setObjectName(QString::fromStdString(spec.identifier));
    setWindowTitle(QString::fromStdString(spec.title));
    setWindowIcon(QIcon(QStringLiteral(":/app/vantorix.svg")));
    resize(spec.defaultWidth, spec.defaultHeight);
    setAttribute(Qt::WA_DeleteOnClose);  // closing discards the content; opening again builds it afresh
    setAttribute(Qt::WA_QuitOnClose, false);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    content->setParent(this);
    layout->addWidget(content);
}

}  // namespace vantorix::app
