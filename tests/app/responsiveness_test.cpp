// The interface thread against a misbehaving server: its timers run on and
// the menu opens at once while the worker's exchange stalls, is cut or reads
// garbage; one exchange at a time; quitting never waits on the server; and
// the store and its time stamp survive together.
#include "apptest.h"

#include "filefinderqt.h"
#include "messagecollector.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QPushButton>
#include <QTimer>

#include <algorithm>

namespace {

using Kind = zel5sim::Fault::Kind;
using Stage = zel5sim::Fault::Stage;

// The store as another run of the program would find it on disk.
std::size_t storedCount() { FileFinderQT finder; return MessageCollector(&finder).count(); }

// ThreadSanitizer's own work runs on the interface thread too: there only a
// blocking wait, seconds long, would show.
#if defined(__SANITIZE_THREAD__)
constexpr qint64 interfaceBoundMs = 1500;
#else
constexpr qint64 interfaceBoundMs = 50;
#endif

} // namespace

using ResponsivenessTest = AppTest;

TEST_F(ResponsivenessTest, EveryFaultEndsTheSessionInItsBoundWhileTheInterfaceRunsOn)
{
    // Each kind at each way in: the login, a tick's calls, the menu's report, the switch; and
    // the offline tooltip's reason. The last two rows are no fault of the server's.
    const QString unreachable = QStringLiteral("Server not reachable: 127.0.0.1:%1").arg(sim->port());
    const QString notBilling = QStringLiteral("Not a billing server at 127.0.0.1:%1").arg(sim->port());
    const struct { zel5sim::Fault fault; QString reason; std::function<void(Config<QString>&)> settings = {}; } cases[] = {
        {{.stage = Stage::Greeting, .kind = Kind::Stall}, unreachable},
        {{.stage = Stage::Greeting, .kind = Kind::Garbage, .bytes = 16}, notBilling},
        {{.stage = Stage::LoginAnswer, .kind = Kind::CutAfter, .bytes = 10}, notBilling},
        {{.kind = Kind::Stall, .function = MiniClient::fnInternetStatus}, unreachable},
        {{.kind = Kind::CutAfter, .function = MiniClient::fnMessages, .bytes = 10}, unreachable},
        {{.kind = Kind::Stall, .function = MiniClient::fnPrepaid}, unreachable},
        {{.kind = Kind::Stall, .function = MiniClient::fnChangeInternetStatus}, unreachable},
        {{.stage = Stage::Greeting}, QStringLiteral("Login refused: check the login and password in the settings"),
         [](Config<QString>& c) { c.password = QStringLiteral("wrong"); }},
        {{.stage = Stage::Greeting}, QStringLiteral("Settings incomplete"), [](Config<QString>& c) { c.login.clear(); }},
    };
    const auto timedMenu = [this] {
        QElapsedTimer clock;
        clock.start();
        openMenu();
        return clock.elapsed();
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(testing::Message() << "row " << &row - cases + 1);
        const auto& [c, reason, settings] = row;
        zel5sim::Fault fault = c;
        fault.times = -1;
        sim->clearFaults();
        app.reset();
        writeSettings(settings);
        if (c.stage != Stage::Call && c.kind != Kind::None)
            sim->addFault(fault);
        // How late a 10 ms timer on the interface thread fires, worst case.
        qint64 worstLateness = 0;
        QElapsedTimer clock, sinceTimer;
        QTimer timer;
        timer.setTimerType(Qt::PreciseTimer);
        QObject::connect(&timer, &QTimer::timeout, [&] { worstLateness = std::max(worstLateness, sinceTimer.restart() - 10); });
        sinceTimer.start();
        timer.start(10);
        clock.start();
        app = std::make_unique<TestApp>();
        app->timeoutMs = 400;
        startApp(); // an incomplete file asks first; cancelled, it goes on with what it has
        if (c.stage != Stage::Call) {
            EXPECT_EQ(offline(QStringLiteral("Connecting…")), tooltip());
        } else {
            ASSERT_TRUE(waitOnline()) << "the first session";
            sim->addFault(fault);
            if (c.function == MiniClient::fnChangeInternetStatus) {
                emit icon()->switchInternetSelected();
            } else {
                app->processTimer(); // marks the report due, so the menu below asks for it
                if (c.function == MiniClient::fnPrepaid) {
                    ASSERT_TRUE(app->settle()) << "the tick";
                    timedMenu();
                }
            }
            clock.restart();
        }
        EXPECT_LT(timedMenu(), interfaceBoundMs) << "the menu opens while the exchange hangs";
        ASSERT_TRUE(app->settle(5000)) << "the faulty exchange to end";
        EXPECT_LT(clock.elapsed(), 3000);
        EXPECT_FALSE(app->connected());
        EXPECT_EQ(ZEL5Icon::OfflinePixmap, icon()->currentPixmap);
        EXPECT_EQ(offline(reason), tooltip());
        EXPECT_LT(worstLateness, interfaceBoundMs) << "timer lateness";
    }
}

TEST_F(ResponsivenessTest, NothingStartsWhileAnAttemptRunsAndSettingsAcceptedMeanwhileApplyNext)
{
    addAccount("boris", "pw2", 1.0);
    sim->addFault({.stage = Stage::Greeting, .kind = Kind::Stall, .stallMs = 500});
    writeSettings();
    startApp();
    ASSERT_TRUE(sim->waitFor([this] { return sim->connectionsAccepted() == 1; })) << "the first attempt";
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
    EXPECT_EQ(1, app->connectedEvents) << "none for the failed attempt";
}

TEST_F(ResponsivenessTest, ATickDuringAnExchangeIsSkippedAndTheSwitchWaitsItsTurnWithoutASession)
{
    writeSettings();
    startApp();
    ASSERT_TRUE(waitOnline());
    const int before = internetAtServer();
    sim->addFault({.kind = Kind::Stall, .function = MiniClient::fnInternetStatus, .stallMs = 300});
    for (int i = 0; i < 6; ++i)
        app->processTimer(); // all but the first skipped: one exchange at a time
    emit icon()->switchInternetSelected();
    ASSERT_TRUE(app->settle()) << "the stalled refresh and the queued switch";
    EXPECT_EQ(before, internetAtServer()) << "the stall closed the session: the switch found none";
    EXPECT_EQ(1, sim->connectionsAccepted());
}

TEST_F(ResponsivenessTest, QuitDuringAStallEndsAtOnceAndKeepsWhatArrived)
{
    editAccount([](zel5sim::Account& a) { a.messages = {{1000, "First", "One"}, {2000, "Second", "Two"}}; });
    writeSettings();
    for (const Stage stage : {Stage::Call, Stage::Greeting}) {
        SCOPED_TRACE(stage == Stage::Call ? "stalled call" : "stalled greeting");
        app.reset();
        sim->clearFaults();
        const zel5sim::Fault stall{.stage = stage, .kind = Kind::Stall, .function = MiniClient::fnInternetStatus};
        if (stage == Stage::Greeting)
            sim->addFault(stall); // until the simulator stops
        startApp();
        if (stage == Stage::Call) {
            ASSERT_TRUE(waitOnline());
            EXPECT_EQ(2000, savedSettings().lastMessageCheck) << "saved with the retrieval, not only at exit";
            sim->addFault(stall);
            app->processTimer();
        }
        ASSERT_TRUE(sim->waitFor([this] { return app->worker()->busy(); })) << "the exchange to start";
        QElapsedTimer clock;
        clock.start();
        app->deinit();
        EXPECT_LT(clock.elapsed(), 1000) << "the exchange is cut short, not waited for";
        EXPECT_TRUE(app->worker()->wait(QDeadlineTimer(10000))) << "the worker to end";
        EXPECT_EQ(2u, storedCount());
    }
}

TEST_F(ResponsivenessTest, RetrievalsWaitForTheOpenMessagesDialogAndDeletionsAreSavedAtOnce)
{
    editAccount([](zel5sim::Account& a) { a.messages = {{1000, "First", "One"}, {2000, "Second", "Two"}}; });
    writeSettings();
    startApp();
    ASSERT_TRUE(waitOnline());
    ASSERT_EQ(2u, storedCount());
    app->answer = [&](QDialog& dialog) {
        editAccount([](zel5sim::Account& a) { a.messages.push_back({3000, "Third", "Three"}); });
        app->processTimer();
        EXPECT_TRUE(app->settle());
        EXPECT_EQ(2u, ZEL5TrayApp::_messageCollector->count()) << "not slipped in under the user's eyes";
        dialog.findChild<QPushButton*>(QStringLiteral("btnDelete"))->click();
        EXPECT_EQ(1u, storedCount()) << "the deletion is on disk at once";
        return int(QDialog::Accepted);
    };
    emit icon()->viewMessagesSelected();
    EXPECT_EQ(2u, ZEL5TrayApp::_messageCollector->count());
    EXPECT_EQ(2u, storedCount());
    EXPECT_EQ(3000, savedSettings().lastMessageCheck);
    EXPECT_TRUE(icon()->notify);

    // A retrieval that brings a stored message again (saved just before a
    // crash, time stamp not yet) keeps it once.
    ZEL5TrayApp::_cfg->lastMessageCheck = 2000;
    tick();
    EXPECT_EQ(2u, ZEL5TrayApp::_messageCollector->count());
    EXPECT_EQ(3000, ZEL5TrayApp::_cfg->lastMessageCheck);
}
