// One tray per user: the built tray as a child process against a billing
// simulator in throw-away folders, and the socket unit in-process.
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

long long msSince(Clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// A file's inode, modification time and bytes: what a write or a replacement changes.
std::string fileState(const std::string& path)
{
    struct stat st;
    if (::stat(path.c_str(), &st) != 0)
        return "(no file)";
    std::ifstream in(path, std::ios::binary);
    return std::to_string(st.st_ino) + " " + std::to_string(st.st_mtim.tv_sec) + "." +
           std::to_string(st.st_mtim.tv_nsec) + " " + std::string(std::istreambuf_iterator<char>(in), {});
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
        ::setenv("XDG_CONFIG_HOME", configHome.c_str(), 1); // before any simulator thread runs
        ::setenv("XDG_DATA_HOME", dataHome.c_str(), 1);
        ::setenv("XDG_RUNTIME_DIR", runtimeDir.c_str(), 1);
        socketPath = SingleInstance::socketPath();
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
        ASSERT_TRUE(cfg._save(true));
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

    // The demo messages are stored, and the settings saved after them.
    bool stored() const
    {
        Config<QString> cfg;
        const QFileInfo store(QString::fromStdString(dataHome + "/zel5_tray/messages"));
        return store.size() > 0 && cfg._load() && cfg.lastMessageCheck > 0;
    }

    // Waits while the tray runs for done(), at most 20 s.
    static ::testing::AssertionResult runsUntil(ChildProcess& tray, const std::function<bool()>& done)
    {
        for (const auto start = Clock::now(); !done();) {
            if (const auto ended = tray.waitExit(20ms))
                return ::testing::AssertionFailure() << "the tray ended: " << ended->describe() << "\n" << tray.stderrText();
            if (Clock::now() - start >= 20s)
                return ::testing::AssertionFailure() << "waited 20 s\n" << tray.stderrText();
        }
        return ::testing::AssertionSuccess();
    }

    static ::testing::AssertionResult endsWithZero(ChildProcess& tray, std::chrono::milliseconds bound)
    {
        const auto ended = tray.waitExit(bound);
        if (ended && ended->code() == 0)
            return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << (ended ? ended->describe() : "still running after " + std::to_string(bound.count()) + " ms")
                                             << "\n" << tray.stderrText();
    }

    // No further connection reaches the simulator within 300 ms.
    void expectConnections(int expected) const
    {
        EXPECT_FALSE(sim->waitFor([&] { return sim->connectionsAccepted() != expected; }, 300))
            << sim->connectionsAccepted() << " connections, not " << expected;
    }

    std::unique_ptr<zel5sim::BillingSim> sim;
};

TEST_F(TrayInstanceTest, ALaterStartShowsTheRunningTrayAndAKilledOneLeavesNothingInTheWay)
{
    const std::string storePath = dataHome + "/zel5_tray/messages", settingsPath = configHome + "/zel5_trayrc";
    auto first = startTray();
    ASSERT_TRUE(runsUntil(*first, [&] { return stored(); })) << "the demo messages stored";
    ASSERT_EQ(1, sim->connectionsAccepted());
    const std::string settingsBefore = fileState(settingsPath), storeBefore = fileState(storePath);

    auto second = startTray();
    ASSERT_TRUE(endsWithZero(*second, 2s)) << "the later start";
    EXPECT_FALSE(first->waitExit(0ms)) << "the first tray ended\n" << first->stderrText();
    EXPECT_EQ(settingsBefore, fileState(settingsPath)) << "the later start touched the settings";
    EXPECT_EQ(storeBefore, fileState(storePath)) << "the later start touched the message store";
    expectConnections(1);

    // Killed with the messages dialog open (the demo messages were new): its socket stays behind.
    ASSERT_TRUE(first->signal(SIGKILL));
    const auto killed = first->waitExit(10s);
    ASSERT_TRUE(killed && killed->signal() == SIGKILL) << (killed ? killed->describe() : "still running");
    ASSERT_TRUE(QFileInfo::exists(socketPath)) << "no stale socket left to try";

    auto next = startTray();
    ASSERT_TRUE(runsUntil(*next, [&] { return sim->connectionsAccepted() > 1; })) << "the next tray to connect";
    ASSERT_TRUE(endsWithZero(*startTray(), 2s)) << "a start while the next tray runs";
    expectConnections(2);
    ASSERT_TRUE(next->signal(SIGTERM));
    EXPECT_TRUE(endsWithZero(*next, 10s)) << "the end after SIGTERM";
    EXPECT_FALSE(QFileInfo::exists(socketPath)) << "the socket outlived a clean end";
}

TEST_F(TrayInstanceTest, OfStartsAtTheSameMomentOnlyOneRuns)
{
    std::unique_ptr<ChildProcess> trays[3] = {startTray(), startTray(), startTray()};
    std::vector<ChildProcess*> running = {trays[0].get(), trays[1].get(), trays[2].get()};
    for (const auto start = Clock::now(); running.size() > 1 || !stored();) {
        ASSERT_LT(Clock::now() - start, 20s) << "two starts to end and the third to store; " << running.size() << " run";
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
    ASSERT_TRUE(running.front()->signal(SIGTERM));
    EXPECT_TRUE(endsWithZero(*running.front(), 10s));
}

// Sends request and returns the answer line, or why there is none in brackets.
QByteArray ask(const QByteArray& request)
{
    QLocalSocket socket;
    socket.connectToServer(SingleInstance::socketPath());
    if (!socket.waitForConnected(1000))
        return "(no connection: " + socket.errorString().toUtf8() + ")";
    socket.write(request);
    socket.flush();
    for (const QDeadlineTimer deadline(2000); !socket.canReadLine() && !deadline.hasExpired();)
        if (!socket.waitForReadyRead(static_cast<int>(qMax<qint64>(deadline.remainingTime(), 1))))
            break;
    return socket.canReadLine() ? socket.readLine().trimmed() : "(no answer line)";
}

TEST_F(InstanceTest, OnlyTheFirstListensAndAnswersEachClientOnItsOwnShowingOnceForShow)
{
    {
        SingleInstance first;
        ASSERT_TRUE(first.tryToBecomePrimary()) << first.errorString().toStdString();
        EXPECT_TRUE(first.errorString().isEmpty()) << first.errorString().toStdString();
        int shows = 0;
        QObject::connect(&first, &SingleInstance::showRequested, [&] { ++shows; });
        SingleInstance second;
        EXPECT_FALSE(second.tryToBecomePrimary());

        // The clients run on a thread of their own while this thread's event loop serves them.
        QByteArray silentState, unknown, tooLong;
        bool answered = false;
        QString why;
        QEventLoop loop;
        std::unique_ptr<QThread> clients(QThread::create([&] {
            QLocalSocket silent; // connects and says nothing: holds up no other
            silent.connectToServer(socketPath);
            silentState = silent.waitForConnected(1000) ? "connected" : silent.errorString().toUtf8();
            unknown = ask("hello\n");
            tooLong = ask(QByteArray(300, 'x'));
            answered = SingleInstance::notifyPrimary(3000, &why);
        }));
        QObject::connect(clients.get(), &QThread::finished, &loop, &QEventLoop::quit);
        QTimer::singleShot(10s, &loop, &QEventLoop::quit);
        clients->start();
        loop.exec();
        ASSERT_TRUE(clients->wait(QDeadlineTimer(5000))) << "the clients to finish";
        EXPECT_EQ("connected", silentState);
        EXPECT_EQ("error unknown request", unknown);
        EXPECT_EQ("error request too long", tooLong);
        EXPECT_TRUE(answered) << why.toStdString();
        QCoreApplication::processEvents();
        EXPECT_EQ(1, shows);
    }
    EXPECT_FALSE(QFileInfo::exists(socketPath)) << "the first one's end removes its socket";
    SingleInstance next;
    EXPECT_TRUE(next.tryToBecomePrimary());
    EXPECT_TRUE(next.errorString().isEmpty()) << next.errorString().toStdString();
}

TEST_F(InstanceTest, LeftoversLocksAndMuteListenersNeitherBlockNorHang)
{
    QString why;
    auto start = Clock::now();
    EXPECT_FALSE(SingleInstance::notifyPrimary(1000, &why));
    EXPECT_LT(msSince(start), 1000) << "nothing listens: the request fails at once";
    EXPECT_FALSE(why.isEmpty());

    // Another start holds the lock around its check: this one waits a bounded time.
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
    ::close(fd);

    // A plain file where the socket should be is taken over.
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
    EXPECT_TRUE(msSince(start) >= 250 && msSince(start) < 2000) << msSince(start) << " ms";
    EXPECT_TRUE(why.contains(QStringLiteral("did not answer"))) << why.toStdString();
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
