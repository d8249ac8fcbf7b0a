// The interface thread against a misbehaving server: its timers run on and
// the menu opens at once while the worker's exchange stalls, is cut or reads
// garbage; one exchange at a time; quitting never waits on the server; and
// the store and its time stamp survive together.
#include "apptest.h"

#include "filefinderqt.h"
#include "messagecollector.h"

#include <QElapsedTimer>
#include <QPushButton>
#include <QTimer>

#include <algorithm>

namespace {

using Kind = zel5sim::Fault::Kind;
using Stage = zel5sim::Fault::Stage;

// How late a 10 ms timer on the interface thread fires, worst case.
class LatenessProbe {
public:
    LatenessProbe()
    {
        timer.setTimerType(Qt::PreciseTimer);
        QObject::connect(&timer, &QTimer::timeout, [this] { worst = std::max(worst, clock.restart() - 10); });
        clock.start();
        timer.start(10);
    }
    qint64 worst = 0;

private:
    QTimer timer;
    QElapsedTimer clock;
};

// The store as another run of the program would find it on disk.
std::size_t storedCount()
{
    FileFinderQT finder;
    return MessageCollector(&finder).count();
}

// ThreadSanitizer's own work runs on the interface thread too: there only a
// blocking wait, seconds long, would show.
#if defined(__SANITIZE_THREAD__)
constexpr qint64 interfaceBoundMs = 1500;
#else
constexpr qint64 interfaceBoundMs = 50;
#endif

} // namespace

class ResponsivenessTest : public AppTest {
protected:
    void startWithShortBounds()
    {
        app = std::make_unique<TestApp>();
        app->loginTimeoutMs = app->callTimeoutMs = 400;
        startApp();
    }
    // How long opening the menu, as a right click does, took.
    qint64 timedMenu()
    {
        QElapsedTimer clock;
        clock.start();
        openMenu();
        return clock.elapsed();
    }
    void withTwoMessages()
    {
        editAccount([](zel5sim::Account& a) { a.messages = {{1000, "First", "One"}, {2000, "Second", "Two"}}; });
        writeSettings();
    }
};

TEST_F(ResponsivenessTest, EveryFaultEndsTheSessionInItsBoundWhileTheInterfaceRunsOn)
{
    // Each kind at each way in: the login, a tick's calls, the menu's report, the switch.
    const struct {
        const char* name;
        Stage stage;
        Kind kind;
        int function;
    } cases[] = {{"stalled greeting", Stage::Greeting, Kind::Stall, 0},
                 {"garbage greeting", Stage::Greeting, Kind::Garbage, 0},
                 {"cut login answer", Stage::LoginAnswer, Kind::CutAfter, 0},
                 {"stalled status", Stage::Call, Kind::Stall, MiniClient::fnInternetStatus},
                 {"garbage status", Stage::Call, Kind::Garbage, MiniClient::fnInternetStatus},
                 {"cut messages", Stage::Call, Kind::CutAfter, MiniClient::fnMessages},
                 {"stalled report", Stage::Call, Kind::Stall, MiniClient::fnPrepaid},
                 {"garbage report", Stage::Call, Kind::Garbage, MiniClient::fnPrepaid},
                 {"stalled switch", Stage::Call, Kind::Stall, MiniClient::fnChangeInternetStatus},
                 {"cut switch", Stage::Call, Kind::CutAfter, MiniClient::fnChangeInternetStatus}};
    writeSettings();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const zel5sim::Fault fault{.stage = c.stage, .kind = c.kind, .function = c.function,
                                   .bytes = c.kind == Kind::CutAfter ? 10 : 16, .times = -1};
        sim->clearFaults();
        app.reset();
        if (c.stage != Stage::Call)
            sim->addFault(fault);
        LatenessProbe probe;
        QElapsedTimer clock;
        clock.start();
        startWithShortBounds();
        if (c.stage == Stage::Call) {
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
        EXPECT_FALSE(connected());
        EXPECT_FALSE(icon()->online);
        EXPECT_EQ(ZEL5Icon::OfflinePixmap, icon()->currentPixmap);
        EXPECT_LT(probe.worst, interfaceBoundMs) << "timer lateness";
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

TEST_F(ResponsivenessTest, ATickDuringAnExchangeIsSkippedAndTheSwitchWaitsItsTurn)
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

    app->processTimer(); // reconnects
    ASSERT_TRUE(waitOnline());
    ASSERT_TRUE(app->settle());
    app->processTimer();
    emit icon()->switchInternetSelected(); // during the refresh: runs right after it
    ASSERT_TRUE(app->settle());
    EXPECT_EQ(1 - before, internetAtServer());
    EXPECT_EQ(1 - before != 0, icon()->internetOn);
}

TEST_F(ResponsivenessTest, QuitDuringAStallEndsAtOnceAndKeepsWhatArrived)
{
    withTwoMessages();
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
        EXPECT_TRUE(app->waitForWorker());
        EXPECT_EQ(2u, storedCount());
    }
}

TEST_F(ResponsivenessTest, RetrievalsWaitForTheOpenMessagesDialogAndDeletionsAreSavedAtOnce)
{
    withTwoMessages();
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

TEST_F(ResponsivenessTest, ManyCyclesOfEveryExchangeWithSettingsAcceptedBetween)
{
    const int cycles = qEnvironmentVariableIntValue("ZEL5_CYCLES") > 0 ? qEnvironmentVariableIntValue("ZEL5_CYCLES") : 200;
    writeSettings();
    startApp();
    app->answer = settingsAnswer(QStringLiteral("anna"), QStringLiteral("secret"), true, false);
    const auto idle = [this] { return QTest::qWaitFor([this] { return connected() && !app->worker()->busy(); }, 10000); };
    for (int i = 0; i < cycles; ++i) {
        ASSERT_TRUE(idle()) << "session " << i;
        app->processTimer();
        openMenu();
        emit icon()->switchInternetSelected();
        if (i % 2 == 0) {
            ASSERT_TRUE(app->settle());
        }
        emit icon()->configureAppSelected(); // drops whatever runs, reconnects
        app->tryToConnect();
    }
    ASSERT_TRUE(idle()) << "the last session";
    EXPECT_GE(sim->connectionsAccepted(), cycles);
}
