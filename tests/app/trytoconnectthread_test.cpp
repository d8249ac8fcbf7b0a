// The connection worker: what it hands the billing client, what it reports,
// and that attempts never overlap.
#include "apptest.h"

#include "config.h"
#include "miniclient.h"
#include "trytoconnectthread.h"
#include "zel5icon.h"

#include <QCoreApplication>

TEST_F(AppTest, CredentialsReachTheClientAsUtf8LoginAndLatin1Password)
{
    addAccount("j\xc3\xbcrgen", "p\xe4ss", 2.0); // UTF-8 login, Latin-1 password
    writeSettings([](Config<QString>& cfg) {
        cfg.login = QStringLiteral("j\u00fcrgen");
        cfg.password = QStringLiteral("p\u00e4ss");
    });
    startApp();
    ASSERT_TRUE(waitOnline());
    const MiniClient* client = ZEL5TrayApp::_miniClient;
    EXPECT_EQ("j\xc3\xbcrgen", client->login);
    EXPECT_EQ("p\xe4ss", client->password);
    EXPECT_EQ("5.1.9", client->requiredVersion);
}

TEST_F(AppTest, FailedAttemptsReportNothingAndTheNextUsesCurrentSettings)
{
    // No settings file and the dialog cancelled: the attempt goes ahead with
    // the defaults, which name no server.
    startApp();
    ASSERT_TRUE(app->waitForWorker());
    EXPECT_EQ("", ZEL5TrayApp::_miniClient->address);

    // A port where nothing listens.
    zel5sim::Options options;
    options.port = 0;
    zel5sim::BillingSim gone(options);
    ASSERT_EQ(0, gone.start());
    gone.stop();
    Config<QString>* cfg = ZEL5TrayApp::_cfg;
    cfg->address = QStringLiteral("127.0.0.1");
    cfg->login = QStringLiteral("anna");
    cfg->password = QStringLiteral("secret");
    cfg->port = gone.port();
    app->processTimer();
    ASSERT_TRUE(app->waitForWorker());
    QCoreApplication::processEvents();
    EXPECT_EQ(0, app->connectedEvents);
    EXPECT_FALSE(app->trayIcon()->online);

    cfg->port = sim->port();
    app->processTimer();
    ASSERT_TRUE(waitOnline());
    EXPECT_EQ(1, app->connectedEvents);
}

TEST_F(AppTest, NoSecondAttemptStartsWhileOneRuns)
{
    sim->addFault(stallGreeting(500));
    writeSettings();
    startApp();
    ASSERT_TRUE(sim->waitFor([this] { return sim->connectionsAccepted() == 1; }));
    ASSERT_TRUE(app->worker()->busy());

    app->tryToConnect();
    emit app->trayIcon()->iconSelected();
    app->processTimer();
    app->changeInternetStatus();
    EXPECT_FALSE(app->worker()->startAttempt(TryToConnectThread::Settings()));
    EXPECT_FALSE(app->trayIcon()->online);

    ASSERT_TRUE(app->waitForWorker()); // the stalled attempt fails
    EXPECT_EQ(1, sim->connectionsAccepted());
    app->processTimer();
    ASSERT_TRUE(waitOnline());
    EXPECT_EQ(2, sim->connectionsAccepted());
}

TEST_F(AppTest, TicksDuringASucceedingAttemptLeaveTheClientToTheWorker)
{
    writeSettings();
    startApp();
    // Under the thread sanitizer any touch of the client before the worker
    // has let go of it shows up as a race.
    ASSERT_TRUE(waitUntil([this] {
        app->processTimer();
        app->tryToConnect();
        openMenu();
        return app->trayIcon()->online;
    }));
    EXPECT_EQ(1, sim->connectionsAccepted());
}
