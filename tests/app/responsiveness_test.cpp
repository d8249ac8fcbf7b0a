// The interface thread against a misbehaving server: it keeps running its
// timers and opens the menu at once while the worker's exchange stalls, is
// cut or reads garbage; the session ends within its bound; quitting never
// waits on the server; and the store and its time stamp survive together.
#include "apptest.h"

#include "filefinder.h"
#include "messagecollector.h"

#include <QElapsedTimer>
#include <QFile>
#include <QPushButton>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <ctime>

namespace {

using Kind = zel5sim::Fault::Kind;
using Stage = zel5sim::Fault::Stage;

// How late a 10 ms timer on the interface thread fires, worst case.
class LatenessProbe {
public:
    LatenessProbe()
    {
        timer.setTimerType(Qt::PreciseTimer);
        QObject::connect(&timer, &QTimer::timeout, [this] {
            worst = std::max(worst, clock.restart() - 10);
        });
        clock.start();
        timer.start(10);
    }
    qint64 worst = 0;

private:
    QTimer timer;
    QElapsedTimer clock;
};

// The store as another run of the program would find it on disk.
class FileFinderStub : public FileFinder {
public:
    explicit FileFinderStub(std::string p) : path(std::move(p)) {}
    std::string findFile(fileType) override { return path; }

private:
    std::string path;
};

std::size_t storedCount(const std::string& file)
{
    FileFinderStub finder(file);
    return MessageCollector(&finder).count();
}

// How late the interface may be. ThreadSanitizer's own work runs on that
// thread too (it reads debug information when it meets Qt's internals), so
// there only a blocking wait, seconds long, would show.
#if defined(__SANITIZE_THREAD__)
constexpr qint64 interfaceBoundMs = 1500;
#else
constexpr qint64 interfaceBoundMs = 50;
#endif

qint64 worstLatenessSeen = 0;
qint64 worstMenuMsSeen = 0;

std::vector<zel5sim::Fault> faultCases()
{
    std::vector<zel5sim::Fault> cases;
    const struct {
        const char* name;
        Kind kind;
    } kinds[] = {{"stall", Kind::Stall}, {"cut", Kind::CutAfter}, {"garbage", Kind::Garbage}};
    const struct {
        const char* name;
        Stage stage;
        int function;
    } places[] = {{"greeting", Stage::Greeting, 0},
                  {"login answer", Stage::LoginAnswer, 0},
                  {"status", Stage::Call, MiniClient::fnInternetStatus},
                  {"messages", Stage::Call, MiniClient::fnMessages},
                  {"report", Stage::Call, MiniClient::fnPrepaid},
                  {"switch", Stage::Call, MiniClient::fnChangeInternetStatus}};
    for (const auto& place : places)
        for (const auto& kind : kinds)
            cases.push_back({.stage = place.stage, .kind = kind.kind, .function = place.function,
                             .bytes = kind.kind == Kind::CutAfter ? 10 : 16, .times = -1});
    return cases;
}

} // namespace

class ResponsivenessTest : public AppTest {
protected:
    void startWithShortBounds()
    {
        app = std::make_unique<TestApp>();
        app->loginTimeoutMs = 400;
        app->callTimeoutMs = 400;
        startApp();
    }
    // Opens the menu as a right click does and returns how long the
    // handler took.
    qint64 timedMenu()
    {
        QElapsedTimer clock;
        clock.start();
        openMenu();
        const qint64 ms = clock.elapsed();
        worstMenuMsSeen = std::max(worstMenuMsSeen, ms);
        return ms;
    }
};

TEST_F(ResponsivenessTest, EveryFaultEndsTheSessionInItsBoundWhileTheInterfaceRunsOn)
{
    writeSettings();
    for (const zel5sim::Fault& fault : faultCases()) {
        const bool atLogin = fault.stage != Stage::Call;
        SCOPED_TRACE(testing::Message() << "stage " << int(fault.stage) << " kind " << int(fault.kind)
                                        << " function " << fault.function);
        sim->clearFaults();
        app.reset();
        if (atLogin)
            sim->addFault(fault);
        LatenessProbe probe;
        QElapsedTimer clock;
        clock.start();
        startWithShortBounds();
        if (!atLogin) {
            ASSERT_TRUE(waitOnline()) << "the first session";
            sim->addFault(fault);
            clock.restart();
            switch (fault.function) {
            case MiniClient::fnPrepaid:
                app->processTimer(); // marks the report due, refreshes
                ASSERT_TRUE(app->settle());
                clock.restart();
                timedMenu();
                break;
            case MiniClient::fnChangeInternetStatus:
                emit icon()->switchInternetSelected();
                break;
            default:
                app->processTimer();
            }
        }
        // The menu opens at once while the exchange hangs.
        EXPECT_LT(timedMenu(), interfaceBoundMs);
        ASSERT_TRUE(app->settle(5000)) << "the faulty exchange to end";
        EXPECT_LT(clock.elapsed(), 3000);
        EXPECT_FALSE(connected());
        EXPECT_FALSE(icon()->online);
        EXPECT_EQ(ZEL5Icon::OfflinePixmap, icon()->currentPixmap);
        EXPECT_LT(probe.worst, interfaceBoundMs);
        worstLatenessSeen = std::max(worstLatenessSeen, probe.worst);
    }
    // For the record of what the interface thread went through.
    std::printf("worst 10 ms timer lateness %lld ms, slowest menu opening %lld ms\n",
                static_cast<long long>(worstLatenessSeen), static_cast<long long>(worstMenuMsSeen));
}

TEST_F(ResponsivenessTest, ATickDuringAnExchangeIsSkippedAndTheSwitchWaitsItsTurn)
{
    writeSettings();
    startApp();
    ASSERT_TRUE(waitOnline());
    const int before = internetAtServer();
    sim->addFault({.kind = Kind::Stall, .function = MiniClient::fnInternetStatus, .stallMs = 300});
    app->processTimer();
    for (int i = 0; i < 5; ++i)
        app->processTimer(); // skipped: one exchange at a time
    emit icon()->switchInternetSelected();
    ASSERT_TRUE(app->settle()) << "the stalled refresh and the queued switch";
    // The stall closed the session: the switch found none and was not sent.
    EXPECT_EQ(before, internetAtServer());
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

TEST_F(ResponsivenessTest, QuitDuringAStalledCallEndsAtOnceAndKeepsWhatArrived)
{
    editAccount([](zel5sim::Account& a) { a.messages = {{1000, "First", "One"}, {2000, "Second", "Two"}}; });
    writeSettings();
    startApp();
    ASSERT_TRUE(waitOnline());
    const std::string file = ZEL5TrayApp::_messageCollector->file();
    // Saved with the retrieval, not only at exit.
    EXPECT_EQ(2000, savedSettings().lastMessageCheck);

    sim->addFault({.kind = Kind::Stall, .function = MiniClient::fnInternetStatus}); // until stopped
    app->processTimer();
    ASSERT_TRUE(sim->waitFor([this] { return app->worker()->busy(); }));
    QElapsedTimer clock;
    clock.start();
    app->deinit();
    const qint64 quitMs = clock.elapsed();
    std::printf("quit during a stalled call took %lld ms\n", static_cast<long long>(quitMs));
    EXPECT_LT(quitMs, 1000);

    EXPECT_EQ(2u, storedCount(file));
}

TEST_F(ResponsivenessTest, RetrievalsWaitForTheOpenMessagesDialogAndDeletionsAreSavedAtOnce)
{
    editAccount([](zel5sim::Account& a) { a.messages = {{1000, "First", "One"}, {2000, "Second", "Two"}}; });
    writeSettings();
    startApp();
    ASSERT_TRUE(waitOnline());
    const std::string file = ZEL5TrayApp::_messageCollector->file();
    ASSERT_EQ(2u, storedCount(file));

    app->answer = [&](QDialog& dialog) {
        editAccount([](zel5sim::Account& a) { a.messages.push_back({3000, "Third", "Three"}); });
        app->processTimer();
        EXPECT_TRUE(app->settle());
        // Not slipped in under the user's eyes.
        EXPECT_EQ(2u, ZEL5TrayApp::_messageCollector->count());
        dialog.findChild<QPushButton*>(QStringLiteral("btnDelete"))->click();
        EXPECT_EQ(1u, storedCount(file)); // the deletion is on disk already
        return int(QDialog::Accepted);
    };
    emit icon()->viewMessagesSelected();
    EXPECT_EQ(2u, ZEL5TrayApp::_messageCollector->count());
    EXPECT_EQ(2u, storedCount(file));
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
    for (int i = 0; i < cycles; ++i) {
        ASSERT_TRUE(QTest::qWaitFor([this] { return connected() && !app->worker()->busy(); }, 10000))
            << "session " << i;
        app->processTimer();
        openMenu();
        emit icon()->switchInternetSelected();
        if (i % 2 == 0) {
            ASSERT_TRUE(app->settle());
        }
        emit icon()->configureAppSelected(); // drops whatever runs, reconnects
        app->tryToConnect();
    }
    ASSERT_TRUE(QTest::qWaitFor([this] { return connected() && !app->worker()->busy(); }, 10000));
    EXPECT_GE(sim->connectionsAccepted(), cycles);
}
