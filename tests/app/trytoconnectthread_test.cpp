// The connection worker: what it hands the billing client, what it reports,
// and that attempts never overlap.
#include "apptest.h"

#include "config.h"
#include "miniclient.h"
#include "trytoconnectthread.h"
#include "zel5icon.h"

#include <QCoreApplication>

namespace {

// A loopback port where nothing listens.
quint16 closedPort()
{
    zel5sim::Options options;
    options.port = 0;
    zel5sim::BillingSim probe(options);
    if (probe.start() != 0)
        return 1;
    const quint16 port = probe.port();
    probe.stop();
    return port;
}

} // namespace

TEST_F(AppTest, CredentialsReachTheClientAsUtf8LoginAndLatin1Password)
{
    zel5sim::Account account;
    account.login = "j\xc3\xbcrgen";  // UTF-8
    account.password = "p\xe4ss";     // Latin-1
    account.balance = 2.0;
    sim->putAccount(account);
    writeSettings([](Config<QString>& cfg) {
        cfg.login = QStringLiteral("j\u00fcrgen");
        cfg.password = QStringLiteral("p\u00e4ss");
    });
    startApp();
    ASSERT_TRUE(waitOnline());

    const MiniClient* client = ZEL5TrayApp::_miniClient;
    EXPECT_EQ(account.login, client->login);
    EXPECT_EQ(account.password, client->password);
    EXPECT_EQ("127.0.0.1", client->address);
    EXPECT_EQ(sim->port(), client->port);
    EXPECT_EQ("5.1.9", client->requiredVersion);
}

TEST_F(AppTest, FailedAttemptsReportNothingAndTheNextUsesCurrentSettings)
{
    // No settings file, and the settings dialog cancelled: the attempt goes
    // ahead with the defaults, which name no server.
    startApp();
    EXPECT_EQ(QStringList{QStringLiteral("SettingsDialog")}, app->dialogs);
    ASSERT_TRUE(app->waitForWorker());
    EXPECT_EQ("", ZEL5TrayApp::_miniClient->address);
    EXPECT_FALSE(ZEL5TrayApp::_miniClient->connected);

    // A server that cannot be reached.
    Config<QString>* cfg = ZEL5TrayApp::_cfg;
    cfg->address = QStringLiteral("127.0.0.1");
    cfg->login = QStringLiteral("anna");
    cfg->password = QStringLiteral("secret");
    cfg->port = closedPort();
    app->processTimer();
    ASSERT_TRUE(app->waitForWorker());
    QCoreApplication::processEvents();
    EXPECT_EQ(0, app->connectedEvents);
    EXPECT_FALSE(app->trayIcon()->online);
    EXPECT_EQ(0, sim->connectionsAccepted());

    cfg->port = sim->port();
    app->processTimer();
    ASSERT_TRUE(waitOnline());
    EXPECT_EQ(1, app->connectedEvents);
}

TEST_F(AppTest, NoSecondAttemptStartsWhileOneRuns)
{
    zel5sim::Fault stall;
    stall.stage = zel5sim::Fault::Stage::Greeting;
    stall.kind = zel5sim::Fault::Kind::Stall;
    stall.stallMs = 500;
    sim->addFault(stall);
    writeSettings();
    startApp();
    ASSERT_TRUE(sim->waitFor([this] { return sim->connectionsAccepted() == 1; }));
    ASSERT_TRUE(app->worker()->busy());

    // Clicks and ticks while the attempt hangs neither start another nor
    // touch the client.
    app->tryToConnect();
    emit app->trayIcon()->iconSelected();
    app->processTimer();
    app->changeInternetStatus();
    EXPECT_FALSE(app->worker()->startAttempt(TryToConnectThread::Settings()));
    EXPECT_FALSE(app->trayIcon()->online);

    // The stalled attempt fails; the next tick connects.
    ASSERT_TRUE(app->waitForWorker());
    EXPECT_EQ(1, sim->connectionsAccepted());
    app->processTimer();
    ASSERT_TRUE(waitOnline());
    EXPECT_EQ(2, sim->connectionsAccepted());
}

TEST_F(AppTest, TicksDuringASucceedingAttemptLeaveTheClientToTheWorker)
{
    writeSettings();
    startApp();
    // Ticks, clicks and menu openings while the worker connects: under the
    // thread sanitizer any touch of the client before the worker let go of
    // it shows up as a race.
    ASSERT_TRUE(waitUntil([this] {
        app->processTimer();
        app->tryToConnect();
        openMenu();
        return app->trayIcon()->online;
    }));
    EXPECT_EQ(1, sim->connectionsAccepted());
    EXPECT_EQ(QStringLiteral("Balance: 12.35"), tooltip());
}
