// The controller against a live billing simulator: connection, refresh
// cycle, account report, internet switch, dialogs, shut-down.
#include "apptest.h"

#include "messagecollector.h"

#include <QFile>
#include <QLineEdit>

#include <ctime>

static std::string shownService(const ZEL5Icon* i) { return i->reports && !i->reports->empty() ? i->reports->front().name : ""; }

TEST_F(AppTest, ConnectsRefreshesReadsTheReportOncePerTickAndSavesOnShutDown)
{
    editAccount([](zel5sim::Account& a) { a.messages.push_back({1000, "Hello", "Welcome"}); });
    writeSettings();
    startApp();
    ASSERT_TRUE(waitOnline());
    EXPECT_EQ(1, app->connectedEvents);
    EXPECT_EQ(QStringLiteral("Balance: 12.35"), tooltip());
    EXPECT_TRUE(icon()->notify);
    EXPECT_EQ("Home 100", shownService(icon())) << "the first connection reads the report";

    const std::int32_t sent = std::time(nullptr);
    editAccount([&](zel5sim::Account& a) {
        a.balance = -3.1;
        a.internetStatus = 0;
        a.messages.push_back({sent, "Invoice", "<b>Paid</b>"});
        a.services.front().name = "Office";
    });
    // A click shows the signalled messages, and only once.
    emit icon()->iconSelected();
    EXPECT_FALSE(icon()->notify);
    emit icon()->iconSelected();
    EXPECT_EQ(QStringList{QStringLiteral("MessagesDialog")}, app->dialogs);

    tick();
    EXPECT_EQ(QStringLiteral("Balance: -3.10"), tooltip());
    EXPECT_EQ(ZEL5Icon::InternetOffPixmap, icon()->currentPixmap);
    EXPECT_TRUE(icon()->notify);
    EXPECT_EQ(2u, ZEL5TrayApp::_messageCollector->count());
    const int lastCheck = ZEL5TrayApp::_cfg->lastMessageCheck;
    EXPECT_GE(lastCheck, sent);
    EXPECT_EQ("Home 100", shownService(icon())) << "the tick only marks the report due";
    openMenu(); // asks for the report due
    ASSERT_TRUE(app->settle());
    EXPECT_EQ("Office", shownService(icon()));
    editAccount([](zel5sim::Account& a) { a.services.front().name = "Third"; });
    openMenu();
    ASSERT_TRUE(app->settle());
    EXPECT_EQ("Office", shownService(icon())) << "one report per tick";
    EXPECT_EQ(1, sim->connectionsAccepted());

    ZEL5TrayApp::_cfg->refreshRate = 300;
    const QString messages = QString::fromStdString(ZEL5TrayApp::_messageCollector->file());
    app->deinit();
    EXPECT_TRUE(sim->waitFor([this] { return sim->activeConnections() == 0; })) << "the session closed";
    // A notice that arrives after shut-down finds nothing to update.
    QCoreApplication::postEvent(app.get(), new QEvent(TryToConnectThread::ConnectedEvent));
    QCoreApplication::sendPostedEvents();
    const Config<QString> saved = savedSettings();
    EXPECT_EQ(300, saved.refreshRate);
    EXPECT_EQ(lastCheck, saved.lastMessageCheck);
    EXPECT_GT(QFile(messages).size(), 0);
}

TEST_F(AppTest, MissingSettingsAreAskedForFirstAndTheCredentialsKeepTheirEncodings)
{
    addAccount("j\xc3\xbcrgen", "p\xe4ss", 2.0); // UTF-8 login, Latin-1 password
    int connectionsWhileAsking = -1;
    app = std::make_unique<TestApp>();
    app->answer = [&](QDialog& dialog) {
        connectionsWhileAsking = sim->connectionsAccepted();
        dialog.findChild<QLineEdit*>(QStringLiteral("txtServerAddress"))->setText(QStringLiteral("127.0.0.1"));
        auto* txtPort = dialog.findChild<QLineEdit*>(QStringLiteral("txtServerPort"));
        txtPort->selectAll();
        QTest::keyClicks(txtPort, QString::number(sim->port()));
        return settingsAnswer(QStringLiteral("j\u00fcrgen"), QStringLiteral("p\u00e4ss"), true)(dialog);
    };
    startApp();
    EXPECT_EQ(QStringList{QStringLiteral("SettingsDialog")}, app->dialogs);
    EXPECT_EQ(0, connectionsWhileAsking);
    // Under ThreadSanitizer any touch of the client while the worker has it is a race.
    ASSERT_TRUE(QTest::qWaitFor([this] {
        app->processTimer();
        app->tryToConnect();
        openMenu();
        return icon()->online;
    }, 10000)) << "online with the typed settings";
    EXPECT_EQ(1, sim->connectionsAccepted());
    EXPECT_EQ(QStringLiteral("Balance: 2.00"), tooltip());
    EXPECT_EQ("j\xc3\xbcrgen", ZEL5TrayApp::_miniClient->login);
    EXPECT_EQ("p\xe4ss", ZEL5TrayApp::_miniClient->password);
    EXPECT_EQ(sim->port(), savedSettings().port);
}

TEST_F(AppTest, SwitchOnStartActsOnceOnlyWhenOffAndTheSwitchNeedsASession)
{
    editAccount([](zel5sim::Account& a) { a.internetStatus = 0; });
    writeSettings([](Config<QString>& cfg) { cfg.switchInternetOnStart = true; });
    startApp();
    ASSERT_TRUE(waitOnline());
    EXPECT_EQ(1, internetAtServer());

    // Switched off meanwhile; the server drops the session on the next tick.
    editAccount([](zel5sim::Account& a) { a.internetStatus = 0; });
    sim->addFault({.kind = zel5sim::Fault::Kind::CutAfter, .function = MiniClient::fnInternetStatus});
    tick();
    EXPECT_EQ(offline(QStringLiteral("Server not reachable: 127.0.0.1:%1").arg(sim->port())), tooltip());
    EXPECT_EQ(ZEL5Icon::OfflinePixmap, icon()->currentPixmap);
    emit icon()->switchInternetSelected(); // no session: the server is not asked
    EXPECT_EQ(0, internetAtServer());

    // The next tick reconnects; the switch on start is not repeated.
    app->processTimer();
    ASSERT_TRUE(waitOnline());
    EXPECT_EQ(2, app->connectedEvents);
    EXPECT_EQ(0, internetAtServer());
    emit icon()->switchInternetSelected();
    ASSERT_TRUE(app->settle());
    EXPECT_EQ(1, internetAtServer());
    EXPECT_TRUE(icon()->internetOn);
}

TEST_F(AppTest, SettingsCancelledChangeNothingAcceptedUnsavedReconnectForThisRunOnly)
{
    addAccount("boris", "pw2", 1.0);
    writeSettings();
    startApp();
    ASSERT_TRUE(waitOnline());
    app->answer = settingsAnswer("boris", "pw2", false);
    emit icon()->configureAppSelected();
    EXPECT_TRUE(icon()->online);

    // "Save settings" cleared: a new session, but the file keeps anna, even after the shut-down.
    app->answer = settingsAnswer("boris", "pw2", true, false);
    emit icon()->configureAppSelected();
    EXPECT_EQ(offline(QStringLiteral("Connecting…")), tooltip()) << "offline until the new session";
    ASSERT_TRUE(waitTooltip(QStringLiteral("Balance: 1.00")));
    EXPECT_EQ(2, sim->connectionsAccepted());
    app->deinit();
    EXPECT_EQ(QStringLiteral("anna"), savedSettings().login);
}
