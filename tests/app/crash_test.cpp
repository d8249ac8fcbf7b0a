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
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <tuple>
#include <vector>

using namespace std::chrono_literals;
using zel5test::ChildProcess;

namespace {

constexpr int killWindowMs = 1500; // each kill comes 0 to this many ms after the start

// One message as the store keeps it: subject, text and date; with how often it is there.
using Message = std::tuple<std::string, std::string, std::string>;
using Counts = std::map<Message, int>;

// The date the tray shows for a message time: local time in the environment's locale.
std::string localDate(std::int32_t time)
{
    const std::time_t t = time;
    std::tm local{};
    char buf[256];
    return localtime_r(&t, &local) ? std::string(buf, std::strftime(buf, sizeof buf, "%d.%m.%Y %X", &local)) : "";
}

// The store file: records of subject, text and date, each a 4-byte little-endian length and
// the bytes. No file is an empty store; a record cut short is an error: the tray replaces the file whole.
bool readStore(const std::string& path, Counts& out, std::size_t& records, std::string& error)
{
    std::ifstream in(path, std::ios::binary);
    const auto text = [&in](std::string& s) {
        unsigned char n[4];
        if (!in.read(reinterpret_cast<char*>(n), 4))
            return false;
        const std::uint32_t size = n[0] | n[1] << 8 | n[2] << 16 | std::uint32_t(n[3]) << 24;
        if (size > 16 * 1024 * 1024)
            return false; // no message of this test comes near
        s.resize(size);
        return size == 0 || static_cast<bool>(in.read(s.data(), size));
    };
    out.clear();
    for (records = 0; in.is_open() && in.peek() != std::ifstream::traits_type::eof(); ++records) {
        Message m;
        if (!text(std::get<0>(m)) || !text(std::get<1>(m)) || !text(std::get<2>(m))) {
            error = "the store ends in a damaged record after " + std::to_string(records) + " whole ones";
            return false;
        }
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
    const char* runsText = std::getenv("ZEL5_CRASH_RUNS");
    const int runs = runsText && *runsText ? std::atoi(runsText) : 25;
    ASSERT_TRUE(runs > 0 && runs <= 100000) << "ZEL5_CRASH_RUNS must be a whole number from 1";
    const char* seedText = std::getenv("ZEL5_CRASH_SEED");
    const std::uint32_t seed = seedText ? std::strtoul(seedText, nullptr, 10) : std::random_device()();
    std::printf("[ seed     ] %u (ZEL5_CRASH_SEED=%u replays these kill moments), %d kills\n", seed, seed, runs);
    std::fflush(stdout);
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::setlocale(LC_ALL, "");

    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const std::string configHome = dir.filePath(QStringLiteral("config")).toStdString();
    const std::string dataHome = dir.filePath(QStringLiteral("data")).toStdString();
    const std::string store = dataHome + "/zel5_tray/messages";
    // A runtime folder of its own: a tray running elsewhere must not send these starts away.
    const std::string runtimeDir = dir.filePath(QStringLiteral("runtime")).toStdString();
    ASSERT_EQ(0, ::mkdir(runtimeDir.c_str(), 0700));
    // For the settings written here; before any simulator thread runs.
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
    std::uniform_int_distribution<int> killAfter(0, killWindowMs);
    int killedAfterSave = 0;
    for (int run = 1; run <= runs; ++run) {
        SCOPED_TRACE("run " + std::to_string(run));
        const int delayMs = killAfter(random);
        const auto before = fileId(store);
        ChildProcess tray({ZEL5_TRAY_EXECUTABLE}, env, ChildProcess::CaptureStderr);
        ASSERT_TRUE(tray.started()) << tray.startError();
        const auto early = tray.waitExit(std::chrono::milliseconds(delayMs)); // the moment of the kill
        ASSERT_FALSE(early) << "the tray ended on its own within " << delayMs << " ms, " << early->describe()
                            << "\n" << tray.stderrText();
        ASSERT_TRUE(tray.signal(SIGKILL));
        const auto killed = tray.waitExit(5s);
        ASSERT_TRUE(killed) << "waited 5 s for the tray to die of SIGKILL";
        EXPECT_EQ(SIGKILL, killed->signal()) << killed->describe();
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
    for (const zel5sim::Message& m : account.messages)
        ++server[{m.subject, m.body, localDate(m.time)}];
    const auto holdsAll = [&] {
        return std::all_of(server.begin(), server.end(),
                           [&](const auto& s) { return stored.count(s.first) && stored.at(s.first) >= s.second; });
    };

    std::size_t records = 0;
    std::string error;
    ChildProcess tray({ZEL5_TRAY_EXECUTABLE}, env, ChildProcess::CaptureStderr);
    ASSERT_TRUE(tray.started()) << tray.startError();
    const auto catchUpEnd = std::chrono::steady_clock::now() + 20s;
    for (;;) {
        ASSERT_TRUE(readStore(store, stored, records, error)) << error;
        if (holdsAll())
            break;
        ASSERT_LT(std::chrono::steady_clock::now(), catchUpEnd)
            << "waited 20 s for the last run to retrieve the server's " << account.messages.size()
            << " messages; the store holds " << records << " records\n" << tray.stderrText();
        const auto ended = tray.waitExit(50ms); // looks again after a short step; the tray must not end
        ASSERT_FALSE(ended) << "the last run ended on its own, " << ended->describe() << "\n" << tray.stderrText();
    }
    ASSERT_TRUE(tray.signal(SIGTERM));
    const auto exit = tray.waitExit(2s);
    ASSERT_TRUE(exit) << "waited 2 s for the tray to end after SIGTERM";
    EXPECT_EQ(0, exit->code()) << exit->describe() << "\n" << tray.stderrText();

    // The store as the clean exit left it, against the server.
    ASSERT_TRUE(readStore(store, stored, records, error)) << error;
    Counts all = stored;
    all.insert(server.begin(), server.end());
    int wrong = 0;
    std::string details;
    for (const auto& [m, n] : all) {
        const int have = stored.count(m) ? stored.at(m) : 0, want = server.count(m) ? server.at(m) : 0;
        if (have != want && ++wrong <= 20)
            details += "\n  " + std::to_string(have) + " stored, " + std::to_string(want) + " at the server: \""
                       + std::get<0>(m) + "\" of " + std::get<2>(m);
    }
    std::printf("[ measured ] %d kills, %d after a save of the store; %zu messages at the server, %zu records stored\n",
                runs, killedAfterSave, account.messages.size(), records);
    EXPECT_EQ(0, wrong) << "messages stored other than once:" << details;
    EXPECT_GT(killedAfterSave, 0) << "no run lived long enough to retrieve messages and save the store: the test proved nothing";
}

} // namespace
