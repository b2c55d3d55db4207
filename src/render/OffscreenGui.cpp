#include "render/OffscreenGui.h"

#include <QGuiApplication>
#include <QString>
#include <QtGlobal>

#include "log/Log.h"

namespace vantorix::render {
namespace {

void logQtMessage(QtMsgType, const QMessageLogContext&, const QString& message) {
    log::logger("Render").debug("Qt: {}", message.toStdString());
}

}  // namespace

void ensureGuiApplication() {
    if (QCoreApplication::instance() != nullptr) return;
    // QGuiApplication keeps references to argc and argv for its whole life.
    static int argc = 3;
    static char name[] = "vantorix";
    static char platformOption[] = "-platform";
    static char platform[] = "offscreen";
    static char* argv[] = {name, platformOption, platform, nullptr};
    qInstallMessageHandler(logQtMessage);
    static auto* application = new QGuiApplication(argc, argv);
    (void)application;
}

}  // namespace vantorix::render
