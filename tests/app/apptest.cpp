#include "apptest.h"

#include "config.h"
#include "zel5icon.h"

#include <QCheckBox>
#include <QDialog>
#include <QFile>
#include <QLineEdit>
#include <QTest>

bool waitUntil(const std::function<bool()>& pred, int timeoutMs)
{
    return QTest::qWaitFor(pred, timeoutMs);
}

void AppTest::SetUp()
{
    ASSERT_TRUE(dir.isValid());
    qputenv("XDG_CONFIG_HOME", dir.filePath(QStringLiteral("config")).toLocal8Bit());
    qputenv("XDG_DATA_HOME", dir.filePath(QStringLiteral("data")).toLocal8Bit());
    // Some tests type the port into the settings dialog, whose port field
    // takes the digits 1 to 9 only.
    zel5sim::Options options;
    options.port = 0;
    options.withDemoAccount = false;
    for (int tries = 0; tries < 50 && (!sim || QString::number(sim->port()).contains(QLatin1Char('0'))); ++tries) {
        sim = std::make_unique<zel5sim::BillingSim>(options);
        ASSERT_EQ(0, sim->start());
    }
    ASSERT_FALSE(QString::number(sim->port()).contains(QLatin1Char('0')));

    addAccount("anna", "secret", 12.345);
    sim->withAccount("anna", [](zel5sim::Account& a) {
        zel5sim::Service service;
        service.name = "Home 100";
        service.prepaid.push_back({1, "Internet", 5 * 1048576LL});
        a.services.push_back(service);
    });
}

void AppTest::TearDown()
{
    app.reset();
    sim->stop();
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

void AppTest::addAccount(const std::string& login, const std::string& password, double balance)
{
    zel5sim::Account account;
    account.login = login;
    account.password = password;
    account.balance = balance;
    account.internetStatus = 1;
    sim->putAccount(account);
}

void AppTest::startApp()
{
    if (!app)
        app = std::make_unique<TestApp>();
    ZEL5TrayApp::_app = app.get();
    app->init();
}

bool AppTest::waitOnline()
{
    return waitUntil([this] { return app->trayIcon()->online; });
}

bool AppTest::waitTooltip(const QString& text)
{
    return waitUntil([&] { return tooltip() == text; });
}

void AppTest::openMenu()
{
    app->trayIcon()->contextMenuAboutToShow(app->trayIcon()->menu());
}

QString AppTest::tooltip() const
{
    return app->trayIcon()->toolTip();
}

int AppTest::internetAtServer(const std::string& login) const
{
    zel5sim::Account account;
    return sim->getAccount(login, account) ? account.internetStatus : -1;
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

zel5sim::Fault dropOnCall(int function)
{
    zel5sim::Fault fault;
    fault.stage = zel5sim::Fault::Stage::Call;
    fault.kind = zel5sim::Fault::Kind::CutAfter;
    fault.function = function;
    return fault;
}

zel5sim::Fault stallGreeting(int ms)
{
    zel5sim::Fault fault;
    fault.stage = zel5sim::Fault::Stage::Greeting;
    fault.kind = zel5sim::Fault::Kind::Stall;
    fault.stallMs = ms;
    return fault;
}
