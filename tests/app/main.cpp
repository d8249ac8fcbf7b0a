// The controller and worker tests need one application object for the whole
// run; they never show anything on screen.
#include <QApplication>
#include <QLoggingCategory>

#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    // The offscreen platform has no system tray; Qt says so on every icon.
    QLoggingCategory::setFilterRules(QStringLiteral("qt.core.qobject.connect.warning=false"));
    QApplication app(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
