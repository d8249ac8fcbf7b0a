// One tray per user: the built tray as a child process against a billing
// simulator with throw-away settings, data and runtime folders, and the
// socket unit in-process.
#include "billingsim.h"
#include "childprocess.h"
#include "config.h"
#include "singleinstance.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QLocalServer>
#include <QLocalSocket>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>

using namespace std::chrono_literals;
using zel5test::ChildProcess;

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto laterStartBound = 2s; // for a later start to end
constexpr auto runningBound = 20s;   // for a tray to log in and store the demo messages
constexpr auto endBound = 10s;       // for a tray to end after a signal

long long msSince(Clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

std::string contents(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// A file's inode, modification time and bytes: what a write or a replacement changes.
std::string fileState(const std::string& path)
{
    struct stat st;
    if (::stat(path.c_str(), &st) != 0)
        return "(no file)";
    return std::to_string(st.st_ino) + " " + std::to_string(st.st_mtim.tv_sec) + "." +
           std::to_string(st.st_mtim.tv_nsec) + " " + contents(path);
}

// Throw-away settings, data and runtime folders for this process and its trays.
class InstanceTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dir.isValid());
        configHome = dir.filePath(QStringLiteral("config")).toStdString();
        dataHome = dir.filePath(QStringLiteral("data")).toStdString();
        runtimeDir = dir.filePath(QStringLiteral("run")).toStdString();
        ASSERT_EQ(0, ::mkdir(runtimeDir.c_str(), 0700)) << std::strerror(errno);
        // Before any simulator thread runs.
        ::setenv("XDG_CONFIG_HOME", configHome.c_str(), 1);
        ::setenv("XDG_DATA_HOME", dataHome.c_str(), 1);
        ::setenv("XDG_RUNTIME_DIR", runtimeDir.c_str(), 1);
        socketPath = SingleInstance::socketPath();
        ASSERT_TRUE(socketPath.startsWith(QString::fromStdString(runtimeDir + "/"))) << socketPath.toStdString();
    }

    QTemporaryDir dir;
    std::string configHome, dataHome, runtimeDir;
    QString socketPath;
};

// The built tray against a simulator with the demo account.
class TrayInstanceTest : public InstanceTest {
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(InstanceTest::SetUp());
        sim = std::make_unique<zel5sim::BillingSim>(zel5sim::Options{.port = 0, .withDemoAccount = true});
        ASSERT_EQ(0, sim->start());
        Config<QString> cfg;
        cfg.address = cfg.webServerAddress = QStringLiteral("127.0.0.1");
        cfg.port = sim->port();
        cfg.login = cfg.password = QStringLiteral("demo");
        ASSERT_TRUE(cfg._save(true)) << "cannot write the settings file";
        settingsPath = configHome + "/zel5_trayrc";
        storePath = dataHome + "/zel5_tray/messages";
    }

    std::unique_ptr<ChildProcess> startTray()
    {
        // No bus: nothing reaches the desktop of whoever runs the tests.
        const std::string noBus = "unix:path=" + runtimeDir + "/no-bus";
        auto tray = std::make_unique<ChildProcess>(
            std::vector<std::string>{ZEL5_TRAY_EXECUTABLE},
            std::vector<std::string>{"QT_QPA_PLATFORM=offscreen", "XDG_CONFIG_HOME=" + configHome,
                                     "XDG_DATA_HOME=" + dataHome, "XDG_RUNTIME_DIR=" + runtimeDir,
                                     "DBUS_SESSION_BUS_ADDRESS=" + noBus, "DBUS_SYSTEM_BUS_ADDRESS=" + noBus},
            ChildProcess::CaptureStderr);
        EXPECT_TRUE(tray->started()) << tray->startError();
        return tray;
    }

    // The demo messages are stored and their time stamp (written after the store) saved.
    bool storedAndStamped() const
    {
        static const QRegularExpression stamp(QStringLiteral("(?m)^last_message_check=[1-9][0-9]*\\s*$"));
        return !contents(storePath).empty() && stamp.match(QString::fromStdString(contents(settingsPath))).hasMatch();
    }

    // Waits while the tray runs for done(); fails when the tray ends first or runningBound passes.
    static ::testing::AssertionResult runsUntil(ChildProcess& tray, const std::function<bool()>& done,
                                                const std::string& what)
    {
        for (const auto start = Clock::now(); !done();) {
            if (const auto ended = tray.waitExit(20ms))
                return ::testing::AssertionFailure() << "the tray ended while waiting for " << what << ": "
                                                     << ended->describe() << "\n" << tray.stderrText();
            if (Clock::now() - start >= runningBound)
                return ::testing::AssertionFailure() << "waited " << runningBound.count() << " s for " << what
                                                     << "\n" << tray.stderrText();
        }
        return ::testing::AssertionSuccess();
    }

    // The tray ends with code 0 within bound.
    static ::testing::AssertionResult endsWithZero(ChildProcess& tray, std::chrono::milliseconds bound,
                                                   const std::string& what)
    {
        const auto ended = tray.waitExit(bound);
        if (ended && ended->code() == 0)
            return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << what << ": "
                                             << (ended ? ended->describe() : "not within " + std::to_string(bound.count()) + " ms")
                                             << "\n" << tray.stderrText();
    }

    static ::testing::AssertionResult stopsCleanly(ChildProcess& tray)
    {
        if (!tray.signal(SIGTERM))
            return ::testing::AssertionFailure() << "cannot send SIGTERM to the tray";
        return endsWithZero(tray, endBound, "the tray's end after SIGTERM");
    }

    // No further connection reaches the simulator within 300 ms.
    void expectConnections(int expected) const
    {
        EXPECT_FALSE(sim->waitFor([&] { return sim->connectionsAccepted() != expected; }, 300))
            << "the simulator saw " << sim->connectionsAccepted() << " connections, not " << expected;
    }

    std::unique_ptr<zel5sim::BillingSim> sim;
    std::string settingsPath, storePath;
};

TEST_F(TrayInstanceTest, ALaterStartShowsTheRunningTrayAndAKilledOneLeavesNothingInTheWay)
{
    auto first = startTray();
    ASSERT_TRUE(runsUntil(*first, [&] { return storedAndStamped(); }, "the first tray to store the demo messages"));
    ASSERT_EQ(1, sim->connectionsAccepted());
    const std::string settingsBefore = fileState(settingsPath), storeBefore = fileState(storePath);

    auto second = startTray();
    ASSERT_TRUE(endsWithZero(*second, laterStartBound, "the later start"));
    EXPECT_FALSE(first->waitExit(0ms)) << "the first tray ended\n" << first->stderrText();
    EXPECT_EQ(settingsBefore, fileState(settingsPath)) << "the later start touched the settings";
    EXPECT_EQ(storeBefore, fileState(storePath)) << "the later start touched the message store";
    expectConnections(1);

    // The request opened the messages dialog (the demo messages were new).
    ASSERT_TRUE(first->signal(SIGKILL));
    const auto killed = first->waitExit(endBound);
    ASSERT_TRUE(killed && killed->signal() == SIGKILL) << (killed ? killed->describe() : "still running");
    ASSERT_TRUE(QFileInfo::exists(socketPath)) << "the killed tray left no socket behind: nothing stale is tried";

    auto next = startTray();
    ASSERT_TRUE(runsUntil(*next, [&] { return sim->connectionsAccepted() > 1; }, "the next tray to connect"));
    auto further = startTray();
    ASSERT_TRUE(endsWithZero(*further, laterStartBound, "a start while the next tray runs"));
    expectConnections(2);
    EXPECT_TRUE(stopsCleanly(*next));
    EXPECT_FALSE(QFileInfo::exists(socketPath)) << "the socket outlived a clean end";
}

TEST_F(TrayInstanceTest, OfStartsAtTheSameMomentOnlyOneRuns)
{
    std::unique_ptr<ChildProcess> trays[3] = {startTray(), startTray(), startTray()};
    // All but one end with 0; the one left logs in once.
    std::vector<ChildProcess*> running = {trays[0].get(), trays[1].get(), trays[2].get()};
    for (const auto start = Clock::now(); running.size() > 1 || !storedAndStamped();) {
        ASSERT_LT(Clock::now() - start, runningBound)
            << "waited for two of the three starts to end and the third to store the demo messages; "
            << running.size() << " still run";
        for (auto it = running.begin(); it != running.end();) {
            const auto exit = (*it)->waitExit(10ms);
            if (!exit) {
                ++it;
                continue;
            }
            EXPECT_EQ(0, exit->code()) << exit->describe() << "\n" << (*it)->stderrText();
            it = running.erase(it);
            ASSERT_FALSE(running.empty()) << "every start ended; none runs";
        }
    }
    expectConnections(1);
    EXPECT_TRUE(stopsCleanly(*running.front()));
}

// ---- The socket unit in this process ----

class SingleInstanceTest : public InstanceTest {
protected:
    // Runs client on a thread of its own while this thread's event loop
    // serves the instances living here; false when it was not done within 5 s.
    static bool serveWhile(const std::function<void()>& client)
    {
        QEventLoop loop;
        std::unique_ptr<QThread> thread(QThread::create(client));
        QObject::connect(thread.get(), &QThread::finished, &loop, &QEventLoop::quit);
        QTimer::singleShot(5s, &loop, &QEventLoop::quit);
        thread->start();
        loop.exec();
        if (thread->wait(QDeadlineTimer(5000)))
            return true;
        ADD_FAILURE() << "waited 10 s for the client thread to end";
        thread->terminate();
        if (!thread->wait(QDeadlineTimer(1000)))
            (void)thread.release(); // never destroy a running thread
        return false;
    }

    // Sends request and returns the answer line, or why there is none in brackets.
    static QByteArray ask(const QByteArray& request)
    {
        QLocalSocket socket;
        socket.connectToServer(SingleInstance::socketPath());
        if (!socket.waitForConnected(1000))
            return "(no connection: " + socket.errorString().toUtf8() + ")";
        socket.write(request);
        socket.flush();
        const QDeadlineTimer deadline(2000);
        while (!socket.canReadLine() && socket.state() == QLocalSocket::ConnectedState && !deadline.hasExpired())
            socket.waitForReadyRead(static_cast<int>(qMax<qint64>(deadline.remainingTime(), 1)));
        return socket.canReadLine() ? socket.readLine().trimmed() : "(no answer line)";
    }
};

TEST_F(SingleInstanceTest, OnlyTheFirstListensAndAnswersEachClientOnItsOwnShowingOnceForShow)
{
    {
        SingleInstance first;
        ASSERT_TRUE(first.tryToBecomePrimary()) << first.errorString().toStdString();
        EXPECT_TRUE(first.errorString().isEmpty()) << first.errorString().toStdString();
        int shows = 0;
        QObject::connect(&first, &SingleInstance::showRequested, [&] { ++shows; });
        SingleInstance second;
        EXPECT_FALSE(second.tryToBecomePrimary());
        EXPECT_FALSE(second.isPrimary());

        QByteArray silentState, unknown, tooLong;
        bool answered = false;
        QString why;
        ASSERT_TRUE(serveWhile([&] {
            // A client that connects and says nothing holds up no other.
            QLocalSocket silent;
            silent.connectToServer(socketPath);
            silentState = silent.waitForConnected(1000) ? "connected" : silent.errorString().toUtf8();
            unknown = ask("hello\n");
            tooLong = ask(QByteArray(300, 'x'));
            answered = SingleInstance::notifyPrimary(3000, &why);
        }));
        EXPECT_EQ("connected", silentState);
        EXPECT_EQ("error unknown request", unknown);
        EXPECT_EQ("error request too long", tooLong);
        EXPECT_TRUE(answered) << why.toStdString();
        QCoreApplication::processEvents();
        EXPECT_EQ(1, shows);
    }
    // The first one's end removed its socket: the next is first at once.
    EXPECT_FALSE(QFileInfo::exists(socketPath));
    SingleInstance next;
    EXPECT_TRUE(next.tryToBecomePrimary());
    EXPECT_TRUE(next.errorString().isEmpty()) << next.errorString().toStdString();
}

TEST_F(SingleInstanceTest, LeftoversLocksAndMuteListenersNeitherBlockNorHang)
{
    QString why;
    auto start = Clock::now();
    EXPECT_FALSE(SingleInstance::notifyPrimary(1000, &why));
    EXPECT_LT(msSince(start), 1000) << "nothing listens: the request fails at once";
    EXPECT_FALSE(why.isEmpty());

    // Another start holds the lock around its check and listen: this one waits a bounded time.
    const int fd = ::open(QFile::encodeName(SingleInstance::lockPath()).constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0) << std::strerror(errno);
    ASSERT_EQ(0, ::flock(fd, LOCK_EX | LOCK_NB)) << std::strerror(errno);
    {
        SingleInstance waiting;
        start = Clock::now();
        EXPECT_FALSE(waiting.tryToBecomePrimary());
        EXPECT_LT(msSince(start), 10000) << "the wait for the lock has no bound";
        EXPECT_TRUE(waiting.errorString().contains(SingleInstance::lockPath())) << waiting.errorString().toStdString();
        EXPECT_FALSE(QFileInfo::exists(socketPath));
    }
    ::close(fd); // that start is through

    // A plain file where the socket should be (a killed tray's real socket
    // is tried by the tray test above) is taken over.
    QFile junk(socketPath);
    ASSERT_TRUE(junk.open(QIODevice::WriteOnly) && junk.write("junk") == 4);
    junk.close();
    {
        SingleInstance instance;
        EXPECT_TRUE(instance.tryToBecomePrimary());
        EXPECT_TRUE(instance.errorString().isEmpty()) << instance.errorString().toStdString();
        QLocalSocket client;
        client.connectToServer(socketPath);
        EXPECT_TRUE(client.waitForConnected(1000)) << client.errorString().toStdString();
    }

    // Something listens but never answers: this thread does not serve it.
    QLocalServer mute;
    ASSERT_TRUE(mute.listen(socketPath)) << mute.errorString().toStdString();
    start = Clock::now();
    EXPECT_FALSE(SingleInstance::notifyPrimary(300, &why));
    const long long tookMs = msSince(start);
    EXPECT_TRUE(tookMs >= 250 && tookMs < 2000) << tookMs << " ms";
    EXPECT_TRUE(why.contains(QStringLiteral("did not answer"))) << why.toStdString();
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
