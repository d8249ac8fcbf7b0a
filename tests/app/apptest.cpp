#include "apptest.h"

#include <QApplication>
#include <QCheckBox>
#include <QDBusConnection>
#include <QLineEdit>
#include <QLoggingCategory>

void AppTest::SetUp()
{
    ASSERT_TRUE(dir.isValid());
    qputenv("XDG_CONFIG_HOME", dir.filePath(QStringLiteral("config")).toLocal8Bit());
    qputenv("XDG_DATA_HOME", dir.filePath(QStringLiteral("data")).toLocal8Bit());
    sim = std::make_unique<zel5sim::BillingSim>(zel5sim::Options{.port = 0, .withDemoAccount = false});
    ASSERT_EQ(0, sim->start());
    addAccount("anna", "secret", 12.345);
    editAccount([](zel5sim::Account& a) { a.services = {{"Home 100", {}, {{1, "Internet", 5 * 1048576LL}}, {}}}; });
}

void AppTest::writeSettings(const std::function<void(Config<QString>&)>& edit)
{
    Config<QString> cfg;
    cfg.address = cfg.webServerAddress = QStringLiteral("127.0.0.1");
    cfg.port = sim->port();
    cfg.login = QStringLiteral("anna");
    cfg.password = QStringLiteral("secret");
    if (edit)
        edit(cfg);
    ASSERT_TRUE(cfg._save(true));
}

std::function<int(QDialog&)> settingsAnswer(const QString& login, const QString& password, bool accept, bool save)
{
    return [=](QDialog& dialog) {
        dialog.findChild<QLineEdit*>(QStringLiteral("txtLogin"))->setText(login);
        dialog.findChild<QLineEdit*>(QStringLiteral("txtPassword"))->setText(password);
        dialog.findChild<QCheckBox*>(QStringLiteral("cbSaveSettings"))->setChecked(save);
        return int(accept ? QDialog::Accepted : QDialog::Rejected);
    };
}

#if defined(__SANITIZE_THREAD__)
// Qt's own threads (D-Bus, painting) sync by futexes the sanitizer does not
// see; the tray's and the tests' own accesses are all still checked.
extern "C" const char* __tsan_default_suppressions()
{
    return "called_from_lib:libQt6Core.so.6\n"
           "called_from_lib:libQt6Gui.so.6\n"
           "called_from_lib:libQt6DBus.so.6\n"
           "called_from_lib:libdbus-1.so.3\n"
           "race:libglib-2.0.so.0\n"
           "race:QEvent::type\n";
}
#endif

int runAppTests(int argc, char** argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QLoggingCategory::setFilterRules(QStringLiteral("qt.core.qobject.connect.warning=false"));
    QApplication app(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
#if defined(__SANITIZE_THREAD__)
    // The sanitizer's first suppression reads debug information: here, not while a test times the interface.
    QDBusConnection::sessionBus();
#endif
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
