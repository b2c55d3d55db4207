// The main of the widget tests: a QApplication on the offscreen platform (no display needed)
// around GoogleTest. Screenshots the tests take go to VANTORIX_SCREENSHOT_DIR when it is set.
#include <gtest/gtest.h>

#include <QApplication>
#include <QtGlobal>

int main(int argc, char** argv) {
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    ::testing::InitGoogleTest(&argc, argv);
    QApplication application(argc, argv);
    return RUN_ALL_TESTS();
}
