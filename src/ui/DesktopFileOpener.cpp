#include "ui/DesktopFileOpener.h"

#include <QDesktopServices>
#include <QUrl>

#include "log/Log.h"

namespace vantorix::ui {

void DesktopFileOpener::open(const std::string& path) {
    if (!QDesktopServices::openUrl(QUrl::fromLocalFile(QString::fromStdString(path))))
        log::logger("Services").notice("No application opened {}", path);
}

}  // namespace vantorix::ui
