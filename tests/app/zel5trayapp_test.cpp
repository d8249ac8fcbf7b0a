// The controller against a live billing simulator: connection, refresh
// cycle, account report, internet switch and shut-down.
#include "apptest.h"

#include "config.h"
#include "messagecollector.h"
#include "miniclient.h"
#include "trytoconnectthread.h"
#include "zel5icon.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>

#include <ctime>

namespace {

std::string shownService(const ZEL5Icon* icon)
{
    return icon->reports && !icon->reports->empty() ? icon->reports->front().name : std::string();
}

std::int32_t now()
{
    return static_cast<std::int32_t>(std::time(nullptr));
}

} // namespace

TEST_F(AppTest, ConnectsRefreshesAndReadsTheReportOncePerTick)
{
    writeSettings();
    startApp();
    ASSERT_TRUE(waitOnline());
    ZEL5Icon* icon = app->trayIcon();
    EXPECT_EQ(1, app->connectedEvents);
    EXPECT_TRUE(app->dialogs.isEmpty());
    EXPECT_EQ(QStringLiteral("Balance: 12.35"), tooltip()); // 12.345, two decimals
    EXPECT_EQ(ZEL5Icon::InternetOnPixmap, icon->currentPixmap);
    EXPECT_FALSE(icon->notify);
    // The first connection reads the report, so the menu has it at once.
    EXPECT_EQ("Home 100", shownService(icon));
    EXPECT_DOUBLE_EQ(1048576.0, icon->sizeDivisor);

    const std::int32_t sent = now();
    sim->withAccount("anna", [&](zel5sim::Account& a) {
        a.balance = -3.1;
        a.internetStatus = 0;
        a.messages.push_back({sent, "Invoice", "<b>Paid</b>"});
        a.services.front().name = "Office";
    });
    openMenu();
    openMenu();
    EXPECT_EQ("Home 100", shownService(icon)); // not due yet

    app->processTimer();
    EXPECT_EQ(QStringLiteral("Balance: -3.10"), tooltip());
    EXPECT_EQ(ZEL5Icon::InternetOffPixmap, icon->currentPixmap);
    EXPECT_TRUE(icon->notify);
    EXPECT_EQ(1u, ZEL5TrayApp::_messageCollector->count());
    EXPECT_GE(ZEL5TrayApp::_cfg->lastMessageCheck, sent);
    EXPECT_EQ("Home 100", shownService(icon)); // the tick only marks it due
    openMenu();
    EXPECT_EQ("Office", shownService(icon));
    sim->withAccount("anna", [](zel5sim::Account& a) { a.services.front().name = "Third"; });
    openMenu();
    EXPECT_EQ("Office", shownService(icon));
    EXPECT_EQ(1, sim->connectionsAccepted());
}

TEST_F(AppTest, SwitchesInternetOnOnlyOnTheFirstConnection)
{
    sim->withAccount("anna", [](zel5sim::Account& a) { a.internetStatus = 0; });
    writeSettings([](Config<QString>& cfg) { cfg.switchInternetOnStart = true; });
    startApp();
    ASSERT_TRUE(waitOnline());
    EXPECT_EQ(1, internetAtServer());
    EXPECT_TRUE(app->trayIcon()->internetOn);

    // Switched off meanwhile; the server drops the session on the next tick.
    sim->withAccount("anna", [](zel5sim::Account& a) { a.internetStatus = 0; });
    sim->addFault(dropOnCall(MiniClient::fnInternetStatus));
    app->processTimer();
    EXPECT_FALSE(app->trayIcon()->online);
    EXPECT_TRUE(tooltip().isEmpty());
    EXPECT_EQ(ZEL5Icon::OfflinePixmap, app->trayIcon()->currentPixmap);

    // The next tick reconnects; the switch is not repeated.
    app->processTimer();
    EXPECT_TRUE(app->reportDue());
    ASSERT_TRUE(waitOnline());
    EXPECT_EQ(2, app->connectedEvents);
    EXPECT_EQ(0, internetAtServer());
    EXPECT_EQ(QStringLiteral("Balance: 12.35"), tooltip());
}

TEST_F(AppTest, SwitchOnStartLeavesInternetThatIsAlreadyOn)
{
    writeSettings([](Config<QString>& cfg) { cfg.switchInternetOnStart = true; });
    startApp();
    ASSERT_TRUE(waitOnline());
    EXPECT_EQ(1, internetAtServer());
}

TEST_F(AppTest, InternetSwitchAsksTheServerOnlyWhileConnected)
{
    writeSettings();
    startApp();
    ASSERT_TRUE(waitOnline());
    emit app->trayIcon()->switchInternetSelected();
    EXPECT_EQ(0, internetAtServer());
    EXPECT_FALSE(app->trayIcon()->internetOn);
    EXPECT_EQ(QStringLiteral("Balance: 12.35"), tooltip());

    ZEL5TrayApp::_miniClient->disconnect();
    emit app->trayIcon()->switchInternetSelected();
    EXPECT_EQ(0, internetAtServer());
    EXPECT_FALSE(app->trayIcon()->online);
}

TEST_F(AppTest, ShutDownSavesEverythingAndEndsTheSession)
{
    writeSettings();
    sim->withAccount("anna", [](zel5sim::Account& a) { a.messages.push_back({1000, "Hello", "Welcome"}); });
    startApp();
    ASSERT_TRUE(waitOnline());
    ZEL5TrayApp::_cfg->refreshRate = 300;
    const int lastCheck = ZEL5TrayApp::_cfg->lastMessageCheck;
    ASSERT_GE(lastCheck, 1000);
    const QString messages = QString::fromStdString(ZEL5TrayApp::_messageCollector->file());

    app->deinit();
    EXPECT_TRUE(sim->waitFor([this] { return sim->activeConnections() == 0; }));
    // A notice that arrives after shut-down finds nothing to update.
    QCoreApplication::postEvent(app.get(), new QEvent(TryToConnectThread::ConnectedEvent));
    QCoreApplication::sendPostedEvents();
    Config<QString> saved;
    ASSERT_TRUE(saved._load());
    EXPECT_EQ(300, saved.refreshRate);
    EXPECT_EQ(lastCheck, saved.lastMessageCheck);
    EXPECT_GT(QFile(messages).size(), 0);
}

TEST_F(AppTest, ShutDownDuringAHangingAttemptReturns)
{
    sim->addFault(stallGreeting(0)); // until the simulator stops
    writeSettings();
    startApp();
    ASSERT_TRUE(sim->waitFor([this] { return sim->connectionsAccepted() == 1; }));
    ASSERT_TRUE(app->worker()->busy());

    QElapsedTimer clock;
    clock.start();
    app->deinit();
    EXPECT_LT(clock.elapsed(), 8000);
    sim->stop();
    EXPECT_TRUE(app->waitForWorker());
}
