// The controller against a live billing simulator: the connection, the
// refresh cycle, the report, the switch and shut-down.
#include "apptest.h"

#include "config.h"
#include "messagecollector.h"
#include "miniclient.h"
#include "trytoconnectthread.h"
#include "zel5icon.h"

#include <QDialog>
#include <QElapsedTimer>
#include <QFile>

#include <ctime>

namespace {

zel5sim::Fault dropOnCall(int function)
{
    zel5sim::Fault fault;
    fault.stage = zel5sim::Fault::Stage::Call;
    fault.kind = zel5sim::Fault::Kind::CutAfter;
    fault.function = function;
    fault.bytes = 0;
    return fault;
}

std::string firstService(const ZEL5Icon* icon)
{
    if (!icon->reports || icon->reports->empty())
        return std::string();
    return icon->reports->front().name;
}

void renameService(zel5sim::BillingSim& sim, const std::string& name)
{
    sim.withAccount("anna", [&](zel5sim::Account& a) { a.services.front().name = name; });
}

} // namespace

TEST_F(AppTest, FirstConnectionShowsTheAccount)
{
    writeSettings();
    startApp();
    ASSERT_TRUE(waitOnline());

    ZEL5Icon* icon = app->trayIcon();
    EXPECT_EQ(1, app->connectedEvents);
    EXPECT_TRUE(app->dialogs.isEmpty());
    // 12.345 rounds to two decimals.
    EXPECT_EQ(QStringLiteral("Balance: 12.35"), tooltip());
    EXPECT_TRUE(icon->internetOn);
    EXPECT_EQ(ZEL5Icon::InternetOnPixmap, icon->currentPixmap);
    // The first connection reads the report, so the menu has it at once.
    EXPECT_FALSE(app->reportDue());
    EXPECT_EQ("Home 100", firstService(icon));
    EXPECT_DOUBLE_EQ(1048576.0, icon->sizeDivisor);
    EXPECT_NE(-1, app->refreshTimer());
    EXPECT_EQ(1, sim->connectionsAccepted());
}

TEST_F(AppTest, RefreshTickUpdatesStatusBalanceAndMessages)
{
    writeSettings();
    startApp();
    ASSERT_TRUE(waitOnline());
    EXPECT_FALSE(app->trayIcon()->notify);

    const std::int32_t sent = static_cast<std::int32_t>(std::time(nullptr));
    sim->withAccount("anna", [&](zel5sim::Account& a) {
        a.balance = -3.1;
        a.internetStatus = 0;
        a.messages.push_back({sent, "Invoice", "<b>Paid</b>"});
    });
    app->processTimer();

    ZEL5Icon* icon = app->trayIcon();
    EXPECT_EQ(QStringLiteral("Balance: -3.10"), tooltip());
    EXPECT_FALSE(icon->internetOn);
    EXPECT_EQ(ZEL5Icon::InternetOffPixmap, icon->currentPixmap);
    EXPECT_TRUE(icon->notify);
    EXPECT_EQ(1u, ZEL5TrayApp::_messageCollector->count());
    EXPECT_GE(ZEL5TrayApp::_cfg->lastMessageCheck, sent);
    EXPECT_TRUE(app->reportDue());

    // Nothing new: the next tick neither stores nor signals anything more.
    icon->setNotify(false);
    app->processTimer();
    EXPECT_FALSE(icon->notify);
    EXPECT_EQ(1u, ZEL5TrayApp::_messageCollector->count());
}

TEST_F(AppTest, ReconnectsAfterTheServerDropsTheSession)
{
    writeSettings();
    startApp();
    ASSERT_TRUE(waitOnline());

    sim->addFault(dropOnCall(MiniClient::fnInternetStatus));
    app->processTimer();
    EXPECT_FALSE(app->trayIcon()->online);
    EXPECT_TRUE(tooltip().isEmpty());
    EXPECT_EQ(ZEL5Icon::OfflinePixmap, app->trayIcon()->currentPixmap);
    EXPECT_TRUE(app->reportDue());

    // The next tick finds the client offline and connects again.
    app->processTimer();
    EXPECT_TRUE(app->reportDue());
    ASSERT_TRUE(waitOnline());
    EXPECT_EQ(2, app->connectedEvents);
    EXPECT_EQ(2, sim->connectionsAccepted());
    EXPECT_EQ(QStringLiteral("Balance: 12.35"), tooltip());
}

TEST_F(AppTest, SwitchesInternetOnOnceOnTheFirstConnection)
{
    sim->withAccount("anna", [](zel5sim::Account& a) { a.internetStatus = 0; });
    writeSettings([](Config<QString>& cfg) { cfg.switchInternetOnStart = true; });
    startApp();
    ASSERT_TRUE(waitOnline());

    zel5sim::Account account;
    ASSERT_TRUE(sim->getAccount("anna", account));
    EXPECT_EQ(1, account.internetStatus);
    EXPECT_TRUE(app->trayIcon()->internetOn);

    // Switched off meanwhile, then a reconnect: it stays off.
    sim->withAccount("anna", [](zel5sim::Account& a) { a.internetStatus = 0; });
    sim->addFault(dropOnCall(MiniClient::fnInternetStatus));
    app->processTimer();
    ASSERT_FALSE(app->trayIcon()->online);
    app->processTimer();
    ASSERT_TRUE(waitOnline());
    ASSERT_TRUE(sim->getAccount("anna", account));
    EXPECT_EQ(0, account.internetStatus);
    EXPECT_FALSE(app->trayIcon()->internetOn);
}

TEST_F(AppTest, SwitchOnStartLeavesInternetThatIsAlreadyOn)
{
    writeSettings([](Config<QString>& cfg) { cfg.switchInternetOnStart = true; });
    startApp();
    ASSERT_TRUE(waitOnline());
    zel5sim::Account account;
    ASSERT_TRUE(sim->getAccount("anna", account));
    EXPECT_EQ(1, account.internetStatus);
    EXPECT_TRUE(app->trayIcon()->internetOn);
}

TEST_F(AppTest, ReportIsReadOncePerTickHoweverOftenTheMenuOpens)
{
    writeSettings();
    startApp();
    ASSERT_TRUE(waitOnline());
    ZEL5Icon* icon = app->trayIcon();

    renameService(*sim, "Office");
    openMenu();
    openMenu();
    EXPECT_EQ("Home 100", firstService(icon));

    app->processTimer();
    EXPECT_EQ("Home 100", firstService(icon)); // not on the tick itself
    openMenu();
    EXPECT_EQ("Office", firstService(icon));

    renameService(*sim, "Third");
    openMenu();
    EXPECT_EQ("Office", firstService(icon));
}

TEST_F(AppTest, InternetSwitchAsksTheServerAndShowsTheResult)
{
    writeSettings();
    startApp();
    ASSERT_TRUE(waitOnline());

    emit app->trayIcon()->switchInternetSelected();
    zel5sim::Account account;
    ASSERT_TRUE(sim->getAccount("anna", account));
    EXPECT_EQ(0, account.internetStatus);
    EXPECT_FALSE(app->trayIcon()->internetOn);
    EXPECT_EQ(QStringLiteral("Balance: 12.35"), tooltip());

    // Offline the switch sends nothing.
    ZEL5TrayApp::_miniClient->disconnect();
    emit app->trayIcon()->switchInternetSelected();
    ASSERT_TRUE(sim->getAccount("anna", account));
    EXPECT_EQ(0, account.internetStatus);
    EXPECT_FALSE(app->trayIcon()->online);
    EXPECT_TRUE(tooltip().isEmpty());
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
    const std::string messagesFile = ZEL5TrayApp::_messageCollector->file();

    app->deinit();
    EXPECT_TRUE(sim->waitFor([this] { return sim->activeConnections() == 0; }));
    EXPECT_EQ(nullptr, ZEL5TrayApp::_cfg);
    EXPECT_EQ(nullptr, ZEL5TrayApp::_miniClient);

    Config<QString> saved;
    ASSERT_TRUE(saved._load());
    EXPECT_EQ(300, saved.refreshRate);
    EXPECT_EQ(lastCheck, saved.lastMessageCheck);
    EXPECT_GT(QFile(QString::fromStdString(messagesFile)).size(), 0);
}

TEST_F(AppTest, ShutDownDuringAHangingAttemptReturns)
{
    zel5sim::Fault stall;
    stall.stage = zel5sim::Fault::Stage::Greeting;
    stall.kind = zel5sim::Fault::Kind::Stall;
    sim->addFault(stall);
    writeSettings();
    startApp();
    ASSERT_TRUE(sim->waitFor([this] { return sim->connectionsAccepted() == 1; }));
    ASSERT_TRUE(app->worker()->busy());

    QElapsedTimer clock;
    clock.start();
    app->deinit();
    EXPECT_LT(clock.elapsed(), 8000);
    // The stalled connection closes with the simulator; the attempt then
    // ends on a client that shut-down left alone.
    sim->stop();
    EXPECT_TRUE(app->waitForWorker());
}
