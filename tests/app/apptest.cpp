#include "apptest.h"

#include <QApplication>
#include <QCheckBox>
#include <QDBusConnection>
#include <QFile>
#include <QLineEdit>
#include <QLoggingCategory>

void AppTest::SetUp()
{
    ASSERT_TRUE(dir.isValid());
    qputenv("XDG_CONFIG_HOME", dir.filePath(QStringLiteral("config")).toLocal8Bit());
    qputenv("XDG_DATA_HOME", dir.filePath(QStringLiteral("data")).toLocal8Bit());
    // The settings dialog's port field takes the digits 1 to 9 only, and
    // one test types the port in.
    const zel5sim::Options options{.port = 0, .withDemoAccount = false};
    for (int tries = 0; tries < 50 && (!sim || QString::number(sim->port()).contains(QLatin1Char('0'))); ++tries) {
        sim = std::make_unique<zel5sim::BillingSim>(options);
        ASSERT_EQ(0, sim->start());
    }
    ASSERT_FALSE(QString::number(sim->port()).contains(QLatin1Char('0')));
    addAccount("anna", "secret", 12.345);
    editAccount([](zel5sim::Account& a) {
        a.services.resize(1);
        a.services[0].name = "Home 100";
        a.services[0].prepaid = {{1, "Internet", 5 * 1048576LL}};
    });
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

QString AppTest::settingsFile() const
{
    QFile file(dir.filePath(QStringLiteral("config/zel5_trayrc")));
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

void AppTest::startApp()
{
    if (!app)
        app = std::make_unique<TestApp>();
    ZEL5TrayApp::_app = app.get();
    app->init();
}

std::function<int(QDialog&)> settingsAnswer(const QString& login, const QString& password, bool accept, bool save)
{
    return [=](QDialog& dialog) {
        auto* txtLogin = dialog.findChild<QLineEdit*>(QStringLiteral("txtLogin"));
        auto* txtPassword = dialog.findChild<QLineEdit*>(QStringLiteral("txtPassword"));
        auto* cbSave = dialog.findChild<QCheckBox*>(QStringLiteral("cbSaveSettings"));
        EXPECT_TRUE(txtLogin && txtPassword && cbSave);
        if (!txtLogin || !txtPassword || !cbSave)
            return int(QDialog::Rejected);
        txtLogin->setText(login);
        txtPassword->setText(password);
        cbSave->setChecked(save);
        return int(accept ? QDialog::Accepted : QDialog::Rejected);
    };
}

#if defined(__SANITIZE_THREAD__)
// Qt is not built with ThreadSanitizer, and what orders its threads is its
// own futex-based mutex, which the sanitizer does not see. Qt's D-Bus
// connections live on a thread of their own, and QPainter hands large
// drawings to a pool of threads: the libdbus connections, the events and
// data Qt passes between those threads and the test's, and glib's wake-up
// eventfd of the bus thread are made on one and used or freed on the other,
// and each would be taken for a race. Ignored: the calls these libraries
// make into the C and C++ runtime themselves (their memory and
// descriptors), glib's wake-up, and the type of an event a thread posted,
// read on the receiving side before the event's own data is taken under the
// poster's lock. Accesses of the tray's or the tests' code to their own data
// are all still seen.
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
    // The offscreen platform has no system tray; Qt says so on every icon.
    QLoggingCategory::setFilterRules(QStringLiteral("qt.core.qobject.connect.warning=false"));
    QApplication app(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
#if defined(__SANITIZE_THREAD__)
    // The bus thread's first wake-up is one of the races suppressed above,
    // and the first suppression reads the program's debug information: done
    // here, not while a test measures how promptly the interface runs.
    QDBusConnection::sessionBus();
#endif
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
