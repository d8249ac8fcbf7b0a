// The connection worker: what it hands the billing client, what it reports,
// and that attempts never overlap.
#include "apptest.h"

#include <QElapsedTimer>
#include <QLineEdit>

TEST_F(AppTest, MissingSettingsAreAskedForFirstAndTheClientIsLeftToTheWorker)
{
    addAccount("j\xc3\xbcrgen", "p\xe4ss", 2.0); // UTF-8 login, Latin-1 password
    const QString port = QString::number(sim->port());
    int connectionsWhileAsking = -1;
    app = std::make_unique<TestApp>();
    app->answer = [&](QDialog& dialog) {
        connectionsWhileAsking = sim->connectionsAccepted();
        dialog.findChild<QLineEdit*>(QStringLiteral("txtServerAddress"))->setText(QStringLiteral("127.0.0.1"));
        auto* txtPort = dialog.findChild<QLineEdit*>(QStringLiteral("txtServerPort"));
        txtPort->selectAll();
        QTest::keyClicks(txtPort, port); // typed: a field set by the program keeps the imported port
        return settingsAnswer(QStringLiteral("j\u00fcrgen"), QStringLiteral("p\u00e4ss"), true)(dialog);
    };
    startApp();
    EXPECT_EQ(QStringList{QStringLiteral("SettingsDialog")}, app->dialogs);
    EXPECT_EQ(0, connectionsWhileAsking);
    // Under the thread sanitizer any touch of the client before the worker
    // has let go of it shows up as a race.
    ASSERT_TRUE(QTest::qWaitFor([this] {
        app->processTimer();
        app->tryToConnect();
        openMenu();
        return icon()->online;
    }, 10000));
    EXPECT_EQ(1, sim->connectionsAccepted());
    EXPECT_EQ(QStringLiteral("Balance: 2.00"), tooltip());
    const MiniClient* client = ZEL5TrayApp::_miniClient;
    EXPECT_EQ("j\xc3\xbcrgen", client->login);
    EXPECT_EQ("p\xe4ss", client->password);
    EXPECT_EQ("5.1.9", client->requiredVersion);
    EXPECT_EQ(sim->port(), savedSettings().port);
}

TEST_F(AppTest, NothingStartsWhileAnAttemptRunsAndSettingsAcceptedMeanwhileApplyNext)
{
    addAccount("boris", "pw2", 1.0);
    sim->addFault({.stage = zel5sim::Fault::Stage::Greeting, .kind = zel5sim::Fault::Kind::Stall, .stallMs = 500});
    writeSettings();
    startApp();
    ASSERT_TRUE(sim->waitFor([this] { return sim->connectionsAccepted() == 1; }));
    ASSERT_TRUE(app->worker()->busy());

    app->tryToConnect();
    emit icon()->iconSelected();
    app->processTimer();
    app->changeInternetStatus();
    EXPECT_FALSE(app->worker()->startAttempt(TryToConnectThread::Settings()));
    app->answer = settingsAnswer("boris", "pw2", true);
    emit icon()->configureAppSelected();
    EXPECT_FALSE(icon()->online);
    EXPECT_EQ(1, sim->connectionsAccepted());

    // The stalled attempt fails; the next one comes without a tick.
    ASSERT_TRUE(waitTooltip(QStringLiteral("Balance: 1.00")));
    EXPECT_EQ("boris", ZEL5TrayApp::_miniClient->login);
    EXPECT_EQ(2, sim->connectionsAccepted());
    EXPECT_EQ(1, app->connectedEvents); // none for the failed attempt
}

TEST_F(AppTest, ShutDownDuringAHangingAttemptReturns)
{
    sim->addFault({.stage = zel5sim::Fault::Stage::Greeting, .kind = zel5sim::Fault::Kind::Stall}); // until stopped
    writeSettings();
    startApp();
    ASSERT_TRUE(sim->waitFor([this] { return sim->connectionsAccepted() == 1; }));
    ASSERT_TRUE(app->worker()->busy());
    QElapsedTimer clock;
    clock.start();
    app->deinit();
    EXPECT_LT(clock.elapsed(), 1000); // the attempt is cut short, not waited for
    sim->stop();
    EXPECT_TRUE(app->waitForWorker());
}
