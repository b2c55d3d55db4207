#include <QApplication>
#include <QCommandLineParser>

#include <csignal>

#include <iostream>
#include <optional>

#include "app/QuitOnSignals.h"
#include "app/VantorixApp.h"
#include "text/Language.h"
#include "ui/Symbols.h"

namespace {

QString localized(const char* chinese, const char* english) {
    return QString::fromStdString(vantorix::text::localized(chinese, english));
}

// Reads the command line before any window system is touched, so that --help and --version work
// without a display. Returns the exit status when the program should end here.
std::optional<int> parseCommandLine(int argc, char** argv, vantorix::app::VantorixApp::Launch& launch) {
    QCoreApplication probe(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("vantorix"));
    QCoreApplication::setApplicationVersion(QStringLiteral(VANTORIX_VERSION));
    QCommandLineParser parser;
    parser.setApplicationDescription(localized(
        "Vantorix：查看并测量一个存储卷——它的信息、实时读写、性能测试和 SMART 健康状况",
        "Vantorix: inspect and measure one storage volume: its facts, live traffic, performance and SMART health"));
    parser.addOption({{QStringLiteral("h"), QStringLiteral("help")}, localized("显示此帮助", "Show this help")});
    parser.addOption({{QStringLiteral("v"), QStringLiteral("version")}, localized("显示版本", "Show the version")});
    const QCommandLineOption precisionOption(
        QStringLiteral("precision"),
        localized("采样间隔（毫秒）：1、10、100 或 1000", "Sampling interval in milliseconds: 1, 10, 100 or 1000"),
        QStringLiteral("ms"));
    const QCommandLineOption monitorOption(
        QStringLiteral("monitor"),
        localized("启动后立即开始监控所选的卷", "Start monitoring the chosen volume at once"));
    parser.addOption(precisionOption);
    parser.addOption(monitorOption);
    parser.addPositionalArgument(QStringLiteral("folder"),
                                 localized("要查看的卷上的一个文件夹", "A folder on the volume to look at"),
                                 QStringLiteral("[folder]"));
    const auto fail = [](const QString& message) {
        std::cerr << message.toStdString() << '\n';
        return 2;
    };
    if (!parser.parse(QCoreApplication::arguments())) return fail(parser.errorText());
    if (parser.isSet(QStringLiteral("help"))) {
        std::cout << parser.helpText()
                         .replace(QCoreApplication::arguments().constFirst(), QStringLiteral("vantorix"))
                         .toStdString();
        return 0;
    }
    if (parser.isSet(QStringLiteral("version"))) {
        std::cout << "vantorix " << VANTORIX_VERSION << '\n';
        return 0;
    }
    if (parser.isSet(precisionOption)) {
        bool number = false;
        const auto value = parser.value(precisionOption).toLongLong(&number);
        launch.precision = number ? vantorix::DiskIOMonitor::precisionFromRawValue(value) : std::nullopt;
        if (!launch.precision)
            return fail(localized("采样间隔必须是 1、10、100 或 1000 毫秒",
                                  "The sampling interval must be 1, 10, 100 or 1000 ms"));
    }
    const QStringList positional = parser.positionalArguments();
    if (positional.size() > 1) return fail(localized("只能指定一个文件夹", "Give at most one folder"));
    if (!positional.isEmpty()) launch.folder = positional.front().toStdString();
    launch.startMonitoring = parser.isSet(monitorOption);
    if (launch.startMonitoring && !launch.folder)
        return fail(localized("--monitor 需要指定一个文件夹", "--monitor needs a folder"));
    if (qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") &&
        qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        std::cerr
            << localized(
                   "没有可用的图形显示（DISPLAY 和 WAYLAND_DISPLAY 均未设置）。在终端中请使用 vantorix-cli。",
                   "No graphical display is available (neither DISPLAY nor WAYLAND_DISPLAY is set). On a terminal, use vantorix-cli.")
                   .toStdString()
            << '\n';
        return 1;
    }
    return std::nullopt;
}

}  // namespace

int main(int argc, char** argv) {
    vantorix::app::VantorixApp::Launch launch;
    if (const auto status = parseCommandLine(argc, argv, launch)) return *status;

    QApplication application(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Vantorix"));
    QApplication::setApplicationVersion(QStringLiteral(VANTORIX_VERSION));
    QApplication::setDesktopFileName(QStringLiteral("com.vantorix.Vantorix"));

    // A signal to end the program ends it as closing the window does: the tester removes its files.
    vantorix::app::QuitOnSignals quitOnSignals({SIGTERM, SIGINT, SIGHUP, SIGQUIT});
    vantorix::ui::chooseIconTheme();
    vantorix::app::VantorixApp vantorix;
    vantorix.show();
    vantorix.launch(launch);
    return QApplication::exec();
}
