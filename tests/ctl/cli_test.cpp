// zel5ctl's commands without a tray, and the lock it holds while writing the store and time stamp.
#include "ctlrun.h"
#include "loopback.h"
#include "messagecollector.h"
#include "miniclient.h"
#include "storelock.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonObject>

namespace zel5test {
namespace {

// The subjects in the store as the tray reads it, oldest first.
std::string storedSubjects(const std::string& path)
{
    PathFinder finder(path);
    MessageCollector store(&finder);
    while (store.currentIndex() > 0)
        store.prevMessage();
    std::string subjects, subject, text, date;
    for (std::size_t i = 0; i < store.count(); ++i, store.nextMessage()) {
        store.currentMessage(subject, text, date);
        subjects += subject + ";";
    }
    return subjects;
}

int lastMessageCheck()
{
    Config<QString> settings;
    EXPECT_TRUE(settings._load()) << "the settings no longer load";
    return settings.lastMessageCheck;
}

// A message time as zel5ctl shows it (local time, C locale).
std::string localDate(std::time_t t)
{
    std::tm local{};
    char buf[64];
    return std::string(buf, std::strftime(buf, sizeof buf, "%d.%m.%Y %X", localtime_r(&t, &local)));
}

using CliTest = CtlTest;

// The lines of the tray's Traffic submenu, which zel5ctl prints the same.
TEST_F(CliTest, ReportPrintsTheTrafficSubmenusLines)
{
    const CtlRun r = run({"report"});
    ASSERT_EQ(0, r.code) << r.err;
    EXPECT_EQ("Service: Mail & Web %4\n"
              "Old Prepaid:\n    Traffic Class: Day (1), Size: 512.00 Mb\n"
              "Prepaid:\n    Traffic Class: Day (1), Size: 20480.00 Mb\n"
              "    Traffic Class: Night (\u00fc) (-2), Size: 0.00 Mb\n"
              "Downloaded:\n    Traffic Class: Local (3), Size: 1.50 Mb\n"
              "Service: TV\nOld Prepaid:\nPrepaid:\n"
              "Downloaded:\n    Traffic Class: %1 %2 (7), Size: 10.00 Mb\n",
              r.out);
}

TEST_F(CliTest, StatusShowsTheAccountAndSwitchInternetFlipsIt)
{
    const CtlRun json = run({"status", "--json"});
    ASSERT_EQ(0, json.code) << json.err;
    EXPECT_EQ(R"({"balance":42.5,"internet":true,"messages":2,"online":true})", compact(json.out));
    const CtlRun switched = run({"switch-internet"});
    ASSERT_EQ(0, switched.code) << switched.err;
    EXPECT_EQ("Internet: off\n", switched.out);
    zel5sim::Account a;
    ASSERT_TRUE(sim->getAccount(login, a));
    EXPECT_EQ(0, a.internetStatus);
    EXPECT_EQ("Internet: off\nBalance: 42.50\nMessages: 2\n", run({"status"}).out);
}

TEST_F(CliTest, MessagesAreStoredOnceAndOnlyTheTimeStampChangesInTheSettings)
{
    const auto settingsText = [&] {
        QFile file(QString::fromStdString(configHome + "/zel5_trayrc"));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(unreadable)");
    };
    const QByteArray before = settingsText();
    const CtlRun text = run({"messages"});
    ASSERT_EQ(0, text.code) << text.err;
    EXPECT_EQ(localDate(messageTimes[0]) + "  Maintenance\nWorks & repairs on Saturday.\n\nSorry!\n\n" +
                  localDate(messageTimes[1]) + "  New tariffs\n- Home 100\n- Home 500\n",
              text.out);
    EXPECT_EQ("Maintenance;New tariffs;", storedSubjects(storePath()));
    EXPECT_EQ(messageTimes[1], lastMessageCheck());
    EXPECT_EQ(before, settingsText().replace(QByteArray::number(messageTimes[1]), "0")) << "more than the time stamp";

    // A time stamp lost after the store was saved brings both again; they are stored once.
    ASSERT_NO_FATAL_FAILURE(writeSettings([](Config<QString>& s) { s.lastMessageCheck = 0; }));
    ASSERT_EQ(0, run({"status"}).code);
    EXPECT_EQ("Maintenance;New tariffs;", storedSubjects(storePath()));

    const std::int32_t newest = static_cast<std::int32_t>(std::time(nullptr)) + 60;
    ASSERT_TRUE(sim->withAccount(login, [&](zel5sim::Account& a) { a.messages.push_back({newest, "Later", "<p>x</p>"}); }));
    EXPECT_EQ("Internet: on\nBalance: 42.50\nMessages: 3\n", run({"status"}).out);
    EXPECT_EQ("Maintenance;New tariffs;Later;", storedSubjects(storePath()));
    EXPECT_EQ(newest, lastMessageCheck());
}

TEST_F(CliTest, FailuresEndWithTheirCodeAndOneLine)
{
    const LoopbackPort refusing(-1);
    const std::tuple<std::function<void(Config<QString>&)>, int, const char*> cases[] = {
        {[](Config<QString>& s) { s.password = "wrong"; }, 4, "login refused"},
        {[&](Config<QString>& s) { s.port = refusing.port; }, 5, "cannot be reached"},
        {[](Config<QString>& s) { s.login.clear(); }, 2, "settings are incomplete"},
    };
    for (const auto& [change, code, says] : cases) {
        SCOPED_TRACE(says);
        ASSERT_NO_FATAL_FAILURE(writeSettings(change));
        const CtlRun status = run({"status"});
        EXPECT_TRUE(failedWith(code, status));
        EXPECT_NE(std::string::npos, status.err.find(says)) << status.err;
        EXPECT_LT(status.took, 12s);
        // Offline the status is still told, with the stored messages counted.
        EXPECT_EQ(code == 2 ? "" : "Offline\nMessages: 0\n", status.out);
    }
}

TEST_F(CliTest, ABadCommandLineGives1HelpAndVersionGive0WithoutAConnection)
{
    const CtlRun bad = run({"stat"});
    EXPECT_TRUE(failedWith(1, bad));
    EXPECT_NE(std::string::npos, bad.err.find("zel5ctl --help")) << bad.err;
    EXPECT_EQ("", bad.out);
    const CtlRun help = run({"--help"});
    EXPECT_EQ(0, help.code);
    for (const char* word : {"status", "report", "messages", "switch-internet", "waybar", "\n  1  ", "\n  6  "})
        EXPECT_NE(std::string::npos, help.out.find(word)) << word;
    const CtlRun version = run({"--version"});
    EXPECT_EQ(0, version.code);
    EXPECT_EQ(0u, version.out.rfind("zel5ctl ", 0)) << version.out;
    EXPECT_EQ(0, sim->connectionsAccepted());
}

TEST_F(CliTest, WaybarOncePrintsOneLineAlsoOffline)
{
    // The first run fetches the two messages: they are new to it.
    const CtlRun first = run({"waybar", "--once", "--format", "text"});
    EXPECT_EQ(0, first.code) << first.err;
    EXPECT_EQ("42.50 +2 new messages\n", first.out);

    for (const auto& [password, code, alt, text] : {std::tuple{"c@rol-pass", 0, "internet-on", "42.50"},
                                                    {"wrong", 4, "offline", "\u2014"}}) {
        SCOPED_TRACE(alt);
        const int checked = lastMessageCheck();
        ASSERT_NO_FATAL_FAILURE(writeSettings([&](Config<QString>& s) { s.lastMessageCheck = checked, s.password = password; }));
        const CtlRun r = run({"waybar", "--once"});
        EXPECT_EQ(code, r.code) << r.err;
        ASSERT_EQ(1, std::count(r.out.begin(), r.out.end(), '\n')) << r.out;
        const QJsonObject line = QJsonDocument::fromJson(QByteArray::fromStdString(r.out)).object();
        EXPECT_EQ(QJsonArray{alt}, line.value("class").toArray()) << r.out;
        EXPECT_EQ(alt, line.value("alt").toString());
        EXPECT_EQ(QString::fromUtf8(text), line.value("text").toString());
    }
}

TEST_F(CliTest, TheStoreIsWrittenOnlyUnderItsLockAndALockNotGivenWithinFiveSecondsGives6)
{
    auto held = std::make_unique<StoreLock>(0);
    ASSERT_TRUE(held->locked());
    ChildProcess child(command({"messages"}), environment(), ChildProcess::CaptureBoth);
    ASSERT_TRUE(child.started()) << child.startError();
    ASSERT_TRUE(sim->waitFor([&] { return sim->lastArgument(MiniClient::fnMessages) != 0; }, 10000))
        << "zel5ctl to ask for messages";
    // It has the messages; for a second it must neither write nor end.
    for (const auto until = std::chrono::steady_clock::now() + 1s; std::chrono::steady_clock::now() < until;) {
        const auto ended = child.waitExit(50ms);
        ASSERT_FALSE(ended) << "ended under the test's lock: " << ended->describe() << "\n" << child.stderrText();
        ASSERT_FALSE(QFile::exists(QString::fromStdString(storePath()))) << "wrote the store under the test's lock";
    }
    held.reset();
    const auto exit = child.waitExit(runBound);
    ASSERT_TRUE(exit) << "zel5ctl to end after the lock was released";
    EXPECT_EQ(0, exit->code()) << child.stderrText();
    EXPECT_EQ("Maintenance;New tariffs;", storedSubjects(storePath()));

    // Held again, with a new message at the server: given up after five seconds, nothing written.
    StoreLock again(0);
    ASSERT_TRUE(again.locked());
    ASSERT_TRUE(sim->withAccount(login, [&](zel5sim::Account& a) {
        a.messages.push_back({messageTimes[1] + 10, "Later", "<p>x</p>"});
    }));
    const CtlRun refused = run({"messages"});
    EXPECT_TRUE(failedWith(6, refused));
    EXPECT_NE(std::string::npos, refused.err.find("message store is locked")) << refused.err;
    EXPECT_GE(refused.took, 5s);
    EXPECT_EQ("Maintenance;New tariffs;", storedSubjects(storePath()));
    EXPECT_EQ(messageTimes[1], lastMessageCheck());
}

} // namespace
} // namespace zel5test
