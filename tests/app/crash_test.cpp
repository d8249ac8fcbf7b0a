// The tray killed with SIGKILL at random moments while the billing server
// keeps adding messages, then run once more and stopped cleanly: its store
// must hold each of the server's messages exactly once. ZEL5_CRASH_RUNS sets
// the number of kills (default 25), ZEL5_CRASH_SEED replays an earlier run.
#include "billingsim.h"
#include "childprocess.h"
#include "config.h"

#include <QString>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <clocale>
#include <cstdio>
#include <fstream>
#include <map>
#include <random>

using namespace std::chrono_literals;
using zel5test::ChildProcess;

namespace {

// One message as the store keeps it: subject, text and date; with how often it is there.
using Message = std::tuple<std::string, std::string, std::string>;
using Counts = std::map<Message, int>;

// The store: records of subject, text and date, each a 4-byte little-endian length and the bytes.
// No file is an empty store; a record cut short is an error, as the tray replaces the file whole.
bool readStore(const std::string& path, Counts& out)
{
    std::ifstream in(path, std::ios::binary);
    const auto text = [&in](std::string& s) {
        unsigned char n[4];
        if (!in.read(reinterpret_cast<char*>(n), 4))
            return false;
        const std::uint32_t size = n[0] | n[1] << 8 | n[2] << 16 | std::uint32_t(n[3]) << 24;
        if (size > 16 * 1024 * 1024) // no message of this test comes near
            return false;
        s.resize(size);
        return size == 0 || static_cast<bool>(in.read(s.data(), size));
    };
    out.clear();
    while (in.is_open() && in.peek() != std::ifstream::traits_type::eof()) {
        Message m;
        if (!text(std::get<0>(m)) || !text(std::get<1>(m)) || !text(std::get<2>(m)))
            return false;
        ++out[m];
    }
    return true;
}

// The store's inode and size: every save puts a new file in place of the old.
std::pair<ino_t, off_t> fileId(const std::string& path)
{
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? std::pair{st.st_ino, st.st_size} : std::pair{ino_t(0), off_t(-1)};
}

// Settings for the demo account at port; later calls keep what the tray saved.
void pointSettingsAt(int port, bool first)
{
    Config<QString> cfg;
    ASSERT_TRUE(cfg._load() || first) << "the tray left settings that do not load";
    cfg.address = cfg.webServerAddress = QStringLiteral("127.0.0.1");
    cfg.port = port;
    cfg.login = cfg.password = QStringLiteral("demo");
    ASSERT_TRUE(cfg._save(true)) << "cannot write the settings file";
}

TEST(CrashTest, KilledAtAnyMomentTheStoreEndsWithEveryMessageOnce)
{
    const int runs = qEnvironmentVariableIntValue("ZEL5_CRASH_RUNS") > 0 ? qEnvironmentVariableIntValue("ZEL5_CRASH_RUNS") : 25;
    const std::uint32_t seed = qEnvironmentVariableIsSet("ZEL5_CRASH_SEED")
                                   ? qEnvironmentVariable("ZEL5_CRASH_SEED").toUInt() : std::random_device()();
    SCOPED_TRACE("ZEL5_CRASH_SEED=" + std::to_string(seed) + " replays these kill moments");
    std::setlocale(LC_ALL, "");

    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const std::string configHome = dir.filePath(QStringLiteral("config")).toStdString();
    const std::string dataHome = dir.filePath(QStringLiteral("data")).toStdString();
    const std::string store = dataHome + "/zel5_tray/messages";
    // A runtime folder of its own: a tray running elsewhere must not send these starts away.
    const std::string runtimeDir = dir.filePath(QStringLiteral("runtime")).toStdString();
    ASSERT_EQ(0, ::mkdir(runtimeDir.c_str(), 0700));
    ::setenv("XDG_CONFIG_HOME", configHome.c_str(), 1);
    ::setenv("XDG_DATA_HOME", dataHome.c_str(), 1);
    const std::vector<std::string> env{"QT_QPA_PLATFORM=offscreen", "XDG_CONFIG_HOME=" + configHome,
                                       "XDG_DATA_HOME=" + dataHome, "XDG_RUNTIME_DIR=" + runtimeDir,
                                       "DBUS_SESSION_BUS_ADDRESS=unix:path=/nonexistent"};

    // A new message for the account every second while the tray is killed.
    zel5sim::BillingSim busy(zel5sim::Options{.port = 0, .demoActivitySeconds = 1, .withDemoAccount = true});
    ASSERT_EQ(0, busy.start());
    ASSERT_NO_FATAL_FAILURE(pointSettingsAt(busy.port(), true));
    std::mt19937 random(seed);
    std::uniform_int_distribution<int> killAfter(0, 1500);
    int killedAfterSave = 0;
    for (int run = 1; run <= runs; ++run) {
        SCOPED_TRACE("run " + std::to_string(run));
        const auto before = fileId(store);
        ChildProcess tray({ZEL5_TRAY_EXECUTABLE}, env, ChildProcess::CaptureStderr);
        ASSERT_TRUE(tray.started()) << tray.startError();
        const auto early = tray.waitExit(std::chrono::milliseconds(killAfter(random))); // the moment of the kill
        ASSERT_FALSE(early) << "the tray ended on its own: " << early->describe() << "\n" << tray.stderrText();
        ASSERT_TRUE(tray.signal(SIGKILL));
        ASSERT_TRUE(tray.waitExit(5s)) << "the tray's end after SIGKILL";
        const auto after = fileId(store);
        killedAfterSave += after.first != before.first && after.second > 0;
    }

    // The last run meets the same account on a server that adds nothing more; one message newer
    // than all others makes sure it retrieves once more from the time stamp the killed runs left.
    busy.stop();
    zel5sim::Account account;
    ASSERT_TRUE(busy.getAccount("demo", account));
    std::int32_t newest = static_cast<std::int32_t>(std::time(nullptr));
    for (const zel5sim::Message& m : account.messages)
        newest = std::max(newest, m.time + 1);
    account.messages.push_back({newest, "After the last kill", "<p>Fetched by the last run.</p>"});
    zel5sim::BillingSim quiet(zel5sim::Options{.port = 0, .withDemoAccount = false});
    quiet.putAccount(account);
    ASSERT_EQ(0, quiet.start());
    ASSERT_NO_FATAL_FAILURE(pointSettingsAt(quiet.port(), false));
    Counts server, stored;
    for (const zel5sim::Message& m : account.messages) { // dated as the tray does: local time and locale
        const std::time_t t = m.time;
        std::tm local{};
        char date[256];
        ++server[{m.subject, m.body, std::string(date, std::strftime(date, sizeof date, "%d.%m.%Y %X", localtime_r(&t, &local)))}];
    }
    const auto holdsAll = [&] {
        return std::all_of(server.begin(), server.end(),
                           [&](const auto& s) { return stored.count(s.first) && stored.at(s.first) >= s.second; });
    };

    ChildProcess tray({ZEL5_TRAY_EXECUTABLE}, env, ChildProcess::CaptureStderr);
    ASSERT_TRUE(tray.started()) << tray.startError();
    const auto catchUpEnd = std::chrono::steady_clock::now() + 20s;
    for (;;) {
        ASSERT_TRUE(readStore(store, stored)) << "the store ends in a damaged record";
        if (holdsAll())
            break;
        ASSERT_LT(std::chrono::steady_clock::now(), catchUpEnd) << "the last run's retrieval\n" << tray.stderrText();
        const auto ended = tray.waitExit(50ms); // looks again after a short step; the tray must not end
        ASSERT_FALSE(ended) << "the last run ended on its own, " << ended->describe() << "\n" << tray.stderrText();
    }
    ASSERT_TRUE(tray.signal(SIGTERM));
    const auto exit = tray.waitExit(2s);
    ASSERT_TRUE(exit) << "the tray's end after SIGTERM";
    EXPECT_EQ(0, exit->code()) << exit->describe() << "\n" << tray.stderrText();
    ASSERT_TRUE(readStore(store, stored)) << "the store ends in a damaged record";
    EXPECT_EQ(server, stored) << "each message stored once";
    EXPECT_GT(killedAfterSave, 0) << "no kill came after a save of the store: the test proved nothing";
}

} // namespace
