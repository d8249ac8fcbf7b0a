// One tray per user. The built tray runs as a child process against a billing
// simulator, with throw-away settings, data and runtime folders: a later start
// must only ask the running tray to show itself and end, leaving the settings,
// the message store and the server alone; a tray killed with SIGKILL must not
// keep the next one from running. The socket unit is driven in-process too.
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
#include <QString>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

using namespace std::chrono_literals;
using zel5test::ChildProcess;

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto laterStartBound = 2s;  // for a later start to end
constexpr auto runningBound = 20s;    // for a tray to log in and store the demo messages
constexpr auto deathBound = 5s;       // for a SIGKILLed tray to be reaped
constexpr auto shutdownBound = 10s;   // for a tray to end after SIGTERM
constexpr auto clientBound = 5s;      // for an in-process client's exchange

long long msSince(Clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// What a file is: its bytes and the stat fields a write or a replacement changes.
struct FileState {
    bool exists = false;
    std::string bytes;
    ino_t inode = 0;
    long long mtimeNs = 0;
    bool operator==(const FileState&) const = default;
};

FileState fileState(const std::string& path)
{
    FileState s;
    struct stat st;
    if (::stat(path.c_str(), &st) != 0)
        return s;
    s.exists = true;
    s.inode = st.st_ino;
    s.mtimeNs = static_cast<long long>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec;
    std::ifstream in(path, std::ios::binary);
    s.bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return s;
}

std::ostream& operator<<(std::ostream& os, const FileState& s)
{
    if (!s.exists)
        return os << "(no file)";
    return os << s.bytes.size() << " bytes, inode " << s.inode << ", mtime " << s.mtimeNs << " ns";
}

// Throw-away settings, data and runtime folders for the test process and the
// trays it starts.
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
        socketPath = SingleInstance::socketPath().toStdString();
        ASSERT_EQ(0, socketPath.rfind(runtimeDir + "/", 0)) << socketPath << " is not in the runtime folder";
    }

    QTemporaryDir dir;
    std::string configHome, dataHome, runtimeDir, socketPath;
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
        cfg.login = QStringLiteral("demo");
        cfg.password = QStringLiteral("demo");
        ASSERT_TRUE(cfg._save(true)) << "cannot write the settings file";
        settingsPath = configHome + "/zel5_trayrc";
        storePath = dataHome + "/zel5_tray/messages";
        ASSERT_TRUE(fileState(settingsPath).exists) << settingsPath;
    }

    std::unique_ptr<ChildProcess> startTray()
    {
        // No session or system bus: the trays send no notification to the
        // desktop of whoever runs the tests.
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

    // The tray has logged in, stored the demo account's messages and saved
    // the time stamp that goes with them (which it writes after the store).
    bool storedAndStamped() const
    {
        const FileState store = fileState(storePath);
        if (!store.exists || store.bytes.empty())
            return false;
        static const QRegularExpression stamp(QStringLiteral("(?m)^last_message_check=([1-9][0-9]*)\\s*$"));
        return stamp.match(QString::fromStdString(fileState(settingsPath).bytes)).hasMatch();
    }

    // Waits while the tray runs for done(); fails when the tray ends first or
    // the bound passes. The tray's standard error is read meanwhile.
    static ::testing::AssertionResult runsUntil(ChildProcess& tray, const std::function<bool()>& done,
                                                std::chrono::milliseconds bound, const std::string& what)
    {
        const auto start = Clock::now();
        for (;;) {
            if (done())
                return ::testing::AssertionSuccess();
            if (const auto ended = tray.waitExit(20ms))
                return ::testing::AssertionFailure() << "the tray ended while waiting for " << what << ": "
                                                     << ended->describe() << "\n" << tray.stderrText();
            if (Clock::now() - start >= bound)
                return ::testing::AssertionFailure() << "waited " << bound.count() << " ms for " << what << "\n"
                                                     << tray.stderrText();
        }
    }

    // The tray ends with 0 within bound.
    static ::testing::AssertionResult endsWithZero(ChildProcess& tray, std::chrono::milliseconds bound,
                                                   const std::string& what, long long* tookMs = nullptr)
    {
        const auto start = Clock::now();
        const auto ended = tray.waitExit(bound);
        if (tookMs)
            *tookMs = msSince(start);
        if (!ended)
            return ::testing::AssertionFailure() << "waited " << bound.count() << " ms for " << what << "\n"
                                                 << tray.stderrText();
        if (ended->code() != 0)
            return ::testing::AssertionFailure() << what << ": " << ended->describe() << "\n" << tray.stderrText();
        return ::testing::AssertionSuccess();
    }

    static ::testing::AssertionResult endsAsLaterStart(ChildProcess& tray, long long* tookMs = nullptr)
    {
        return endsWithZero(tray, laterStartBound, "a later start to end", tookMs);
    }

    static ::testing::AssertionResult stopsCleanly(ChildProcess& tray)
    {
        if (!tray.signal(SIGTERM))
            return ::testing::AssertionFailure() << "cannot send SIGTERM to the tray";
        return endsWithZero(tray, shutdownBound, "the tray to end after SIGTERM");
    }

    // Gives a second connection a moment to reach the simulator, should a
    // later start have made one; true when none came.
    bool noFurtherConnection(int expected) const
    {
        return !sim->waitFor([&] { return sim->connectionsAccepted() != expected; }, 300);
    }

    std::unique_ptr<zel5sim::BillingSim> sim;
    std::string settingsPath, storePath;
};

TEST_F(TrayInstanceTest, ALaterStartShowsTheRunningTrayAndLeavesSettingsStoreAndServerAlone)
{
    auto first = startTray();
    ASSERT_TRUE(runsUntil(*first, [&] { return storedAndStamped(); }, runningBound,
                          "the first tray to store the demo messages"));
    ASSERT_EQ(1, sim->connectionsAccepted());
    const FileState settingsBefore = fileState(settingsPath);
    const FileState storeBefore = fileState(storePath);

    auto second = startTray();
    long long tookMs = 0;
    ASSERT_TRUE(endsAsLaterStart(*second, &tookMs));
    std::printf("[ timing   ] the later start ended after %lld ms\n", tookMs);

    EXPECT_FALSE(first->waitExit(0ms)) << "the first tray ended\n" << first->stderrText();
    EXPECT_EQ(settingsBefore, fileState(settingsPath)) << "the later start touched the settings";
    EXPECT_EQ(storeBefore, fileState(storePath)) << "the later start touched the message store";
    EXPECT_TRUE(noFurtherConnection(1)) << "the simulator saw " << sim->connectionsAccepted() << " connections";

    // The request opened the messages dialog of the running tray (its demo
    // messages were new); it still ends cleanly and removes its socket.
    EXPECT_TRUE(stopsCleanly(*first));
    EXPECT_FALSE(QFileInfo::exists(QString::fromStdString(socketPath))) << "the socket outlived a clean end";
}

TEST_F(TrayInstanceTest, AfterTheRunningTrayIsKilledTheNextStartRunsAndConnects)
{
    {
        auto first = startTray();
        ASSERT_TRUE(runsUntil(*first, [&] { return storedAndStamped(); }, runningBound,
                              "the first tray to store the demo messages"));
        ASSERT_TRUE(first->signal(SIGKILL));
        const auto killed = first->waitExit(deathBound);
        ASSERT_TRUE(killed) << "waited " << deathBound.count() << " s for the tray to die of SIGKILL";
        EXPECT_EQ(SIGKILL, killed->signal()) << killed->describe();
    }
    ASSERT_TRUE(QFileInfo::exists(QString::fromStdString(socketPath)))
        << "the killed tray left no socket file behind, so nothing stale is tried here";
    const int before = sim->connectionsAccepted();

    auto next = startTray();
    ASSERT_TRUE(runsUntil(*next, [&] { return sim->connectionsAccepted() > before; }, runningBound,
                          "the next tray to connect to the server"));
    // It is the running tray now: a further start is sent away.
    auto further = startTray();
    ASSERT_TRUE(endsAsLaterStart(*further));
    EXPECT_TRUE(noFurtherConnection(before + 1)) << "the simulator saw " << sim->connectionsAccepted() << " connections";
    EXPECT_TRUE(stopsCleanly(*next));
}

TEST_F(TrayInstanceTest, OfStartsAtTheSameMomentOnlyOneRuns)
{
    constexpr int starts = 3;
    std::vector<std::unique_ptr<ChildProcess>> trays;
    for (int i = 0; i < starts; ++i)
        trays.push_back(startTray());

    // All but one end; the one left logs in once.
    std::vector<bool> ended(starts, false);
    int endedCount = 0;
    const auto start = Clock::now();
    while (endedCount < starts - 1 || !storedAndStamped()) {
        ASSERT_LT(Clock::now() - start, runningBound)
            << "waited " << runningBound.count() << " s for " << starts - 1 << " of " << starts
            << " starts to end and the remaining one to store the demo messages; " << endedCount << " ended";
        for (int i = 0; i < starts; ++i) {
            if (ended[i])
                continue;
            if (const auto exit = trays[i]->waitExit(10ms)) {
                ended[i] = true;
                ++endedCount;
                EXPECT_EQ(0, exit->code()) << "start " << i << " " << exit->describe() << "\n" << trays[i]->stderrText();
                ASSERT_LT(endedCount, starts) << "every start ended; none runs";
            }
        }
    }
    EXPECT_TRUE(noFurtherConnection(1)) << "the simulator saw " << sim->connectionsAccepted() << " connections";
    for (int i = 0; i < starts; ++i) {
        if (!ended[i]) {
            EXPECT_TRUE(stopsCleanly(*trays[i]));
        }
    }
}

// ---- The socket unit in this process ----

class SingleInstanceTest : public InstanceTest {
protected:
    // Runs client on a thread of its own while this thread's event loop
    // serves the instances that live here; true when the client was done
    // within clientBound. The client's own calls are bounded.
    static bool serveWhile(const std::function<void()>& client)
    {
        QEventLoop loop;
        std::unique_ptr<QThread> thread(QThread::create(client));
        QObject::connect(thread.get(), &QThread::finished, &loop, &QEventLoop::quit);
        QTimer::singleShot(clientBound, &loop, &QEventLoop::quit);
        thread->start();
        loop.exec();
        if (thread->wait(QDeadlineTimer(std::chrono::milliseconds(clientBound))))
            return true;
        ADD_FAILURE() << "waited " << 2 * clientBound.count() << " s for the client thread to end";
        thread->terminate();
        if (!thread->wait(QDeadlineTimer(1000)))
            (void)thread.release(); // never destroy a running thread
        return false;
    }

    // One request line, answered with one line (without its newline) or an
    // explanation in brackets. Runs on a client thread.
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
        if (!socket.canReadLine())
            return "(no answer line)";
        return socket.readLine().trimmed();
    }
};

TEST_F(SingleInstanceTest, TheSecondIsNotPrimaryAndItsRequestIsAnsweredAndShownOnce)
{
    const QString path = SingleInstance::socketPath();
    {
        SingleInstance first;
        ASSERT_TRUE(first.tryToBecomePrimary()) << first.errorString().toStdString();
        EXPECT_TRUE(first.errorString().isEmpty()) << first.errorString().toStdString();
        EXPECT_TRUE(QFileInfo::exists(path));
        int shows = 0;
        QObject::connect(&first, &SingleInstance::showRequested, [&] { ++shows; });

        SingleInstance second;
        EXPECT_FALSE(second.tryToBecomePrimary());
        EXPECT_FALSE(second.isPrimary());

        bool answered = false;
        QString why;
        ASSERT_TRUE(serveWhile([&] { answered = SingleInstance::notifyPrimary(3000, &why); }));
        EXPECT_TRUE(answered) << why.toStdString();
        QCoreApplication::processEvents();
        EXPECT_EQ(1, shows);
    }
    // The first one's end removed its socket: the next is first at once.
    EXPECT_FALSE(QFileInfo::exists(path));
    SingleInstance next;
    EXPECT_TRUE(next.tryToBecomePrimary());
    EXPECT_TRUE(next.errorString().isEmpty()) << next.errorString().toStdString();
}

TEST_F(SingleInstanceTest, EachClientIsAnsweredOnItsOwnAndOnlyShowIsTaken)
{
    SingleInstance primary;
    ASSERT_TRUE(primary.tryToBecomePrimary()) << primary.errorString().toStdString();
    int shows = 0;
    QObject::connect(&primary, &SingleInstance::showRequested, [&] { ++shows; });

    QByteArray unknown, tooLong, silentState;
    bool answered = false;
    QString why;
    ASSERT_TRUE(serveWhile([&] {
        // A client that connects and says nothing holds up no other.
        QLocalSocket silent;
        silent.connectToServer(SingleInstance::socketPath());
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

TEST_F(SingleInstanceTest, ALeftoverSocketFileDoesNotBlockTheStart)
{
    const QString path = SingleInstance::socketPath();
    const QByteArray encoded = QFile::encodeName(path);

    // What a killed tray leaves: a socket file nothing listens on.
    {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_GE(fd, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        ASSERT_LT(encoded.size(), static_cast<qsizetype>(sizeof addr.sun_path));
        std::memcpy(addr.sun_path, encoded.constData(), encoded.size());
        ASSERT_EQ(0, ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr)) << std::strerror(errno);
        ::close(fd);
    }
    for (const char* leftover : {"a socket nothing listens on", "a plain file"}) {
        SCOPED_TRACE(leftover);
        if (std::strcmp(leftover, "a plain file") == 0) {
            QFile junk(path);
            ASSERT_TRUE(junk.open(QIODevice::WriteOnly));
            junk.write("junk");
        }
        ASSERT_TRUE(QFileInfo::exists(path));
        SingleInstance instance;
        EXPECT_TRUE(instance.tryToBecomePrimary());
        EXPECT_TRUE(instance.errorString().isEmpty()) << instance.errorString().toStdString();
        QLocalSocket client;
        client.connectToServer(path);
        EXPECT_TRUE(client.waitForConnected(1000)) << client.errorString().toStdString();
    }
}

TEST_F(SingleInstanceTest, WhileAnotherStartIsAtTheCheckThisOneDoesNotListen)
{
    // Another start holds the lock around its check and listen.
    const int fd = ::open(QFile::encodeName(SingleInstance::lockPath()).constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0) << std::strerror(errno);
    ASSERT_EQ(0, ::flock(fd, LOCK_EX | LOCK_NB)) << std::strerror(errno);

    SingleInstance instance;
    const auto start = Clock::now();
    EXPECT_FALSE(instance.tryToBecomePrimary());
    const long long tookMs = msSince(start);
    EXPECT_LT(tookMs, 10000) << "the wait for the lock has no bound";
    EXPECT_TRUE(instance.errorString().contains(SingleInstance::lockPath())) << instance.errorString().toStdString();
    EXPECT_FALSE(QFileInfo::exists(SingleInstance::socketPath()));

    ::close(fd); // that start is through
    EXPECT_TRUE(instance.tryToBecomePrimary()) << instance.errorString().toStdString();
}

TEST_F(SingleInstanceTest, ARequestThatFindsNoAnswerEndsWithinItsBound)
{
    QString why;
    auto start = Clock::now();
    EXPECT_FALSE(SingleInstance::notifyPrimary(1000, &why));
    EXPECT_LT(msSince(start), 1000) << "nothing listens: the request fails at once";
    EXPECT_FALSE(why.isEmpty());

    // Something listens but never answers: this thread does not serve it.
    QLocalServer mute;
    ASSERT_TRUE(mute.listen(SingleInstance::socketPath())) << mute.errorString().toStdString();
    why.clear();
    start = Clock::now();
    EXPECT_FALSE(SingleInstance::notifyPrimary(300, &why));
    const long long tookMs = msSince(start);
    EXPECT_GE(tookMs, 250);
    EXPECT_LT(tookMs, 2000);
    EXPECT_TRUE(why.contains(QStringLiteral("did not answer"))) << why.toStdString();
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
