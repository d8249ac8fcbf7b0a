#include "apptest.h"

#include "config.h"
#include "zel5icon.h"

#include <QFile>
#include <QTest>

namespace {
zel5sim::Options simOptions()
{
    zel5sim::Options options;
    options.port = 0;
    options.withDemoAccount = false;
    return options;
}
} // namespace

bool waitUntil(const std::function<bool()>& pred, int timeoutMs)
{
    return QTest::qWaitFor(pred, timeoutMs);
}

void AppTest::SetUp()
{
    ASSERT_TRUE(dir.isValid());
    qputenv("XDG_CONFIG_HOME", dir.filePath(QStringLiteral("config")).toLocal8Bit());
    qputenv("XDG_DATA_HOME", dir.filePath(QStringLiteral("data")).toLocal8Bit());
    // The settings dialog's port field takes the digits 1 to 9 only; a port
    // it cannot show would not survive a round through the dialog.
    for (int tries = 0; tries < 50; ++tries) {
        sim = std::make_unique<zel5sim::BillingSim>(simOptions());
        ASSERT_EQ(0, sim->start());
        if (!QString::number(sim->port()).contains(QLatin1Char('0')))
            break;
    }
    ASSERT_FALSE(QString::number(sim->port()).contains(QLatin1Char('0')));
    sim->putAccount(subscriber());
}

void AppTest::TearDown()
{
    app.reset();
    sim->stop();
}

zel5sim::Account AppTest::subscriber()
{
    zel5sim::Account account;
    account.login = "anna";
    account.password = "secret";
    account.balance = 12.345;
    account.internetStatus = 1;
    account.sizeDivisor = 1048576;
    zel5sim::Service service;
    service.name = "Home 100";
    service.prepaid.push_back({1, "Internet", 5 * 1048576LL});
    account.services.push_back(service);
    return account;
}

void AppTest::defaultSettings(Config<QString>& cfg) const
{
    cfg.address = QStringLiteral("127.0.0.1");
    cfg.port = sim->port();
    cfg.login = QStringLiteral("anna");
    cfg.password = QStringLiteral("secret");
    cfg.webServerAddress = QStringLiteral("127.0.0.1");
}

void AppTest::writeSettings(const std::function<void(Config<QString>&)>& edit)
{
    Config<QString> cfg;
    defaultSettings(cfg);
    if (edit)
        edit(cfg);
    ASSERT_TRUE(cfg._save(true));
}

QString AppTest::settingsFile() const
{
    QFile file(dir.filePath(QStringLiteral("config/zel5_trayrc")));
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    return QString::fromUtf8(file.readAll());
}

void AppTest::startApp()
{
    app = std::make_unique<TestApp>();
    ZEL5TrayApp::_app = app.get();
    app->init();
}

bool AppTest::waitOnline(int timeoutMs)
{
    return waitUntil([this] { return app->trayIcon()->online; }, timeoutMs);
}

void AppTest::openMenu()
{
    ZEL5Icon* icon = app->trayIcon();
    icon->contextMenuAboutToShow(icon->menu());
}

QString AppTest::tooltip() const
{
    return app->trayIcon()->toolTip();
}
