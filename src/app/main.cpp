#include <QApplication>
#include <QCommandLineParser>

#include "app/ShellWindows.h"
#include "app/VantorixApp.h"
#include "text/Language.h"
#include "ui/Symbols.h"

int main(int argc, char** argv) {
    QApplication application(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Vantorix"));
    QApplication::setApplicationVersion(QStringLiteral(VANTORIX_VERSION));
    QApplication::setDesktopFileName(QStringLiteral("com.vantorix.Vantorix"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QString::fromStdString(vantorix::text::localized(
        "Vantorix：查看并测量一个存储卷——它的信息、实时读写、性能测试和 SMART 健康状况",
        "Vantorix: inspect and measure one storage volume: its facts, live traffic, performance and SMART health")));
    parser.addHelpOption();
    parser.addVersionOption();
    parser.process(application);

    vantorix::ui::chooseIconTheme();
    vantorix::app::VantorixApp vantorix;
    vantorix.show();
    return QApplication::exec();
}
