// zel5ctl's commands as a user or a script runs them, without a tray; the
// store's lock, which zel5ctl holds while it writes the store and time stamp.
#include "ctlrun.h"
#include "filefinder.h"
#include "loopback.h"
#include "messagecollector.h"
#include "storelock.h"

#include <QFile>

namespace zel5test {
namespace {

class PathFinder : public FileFinder {
public:
    explicit PathFinder(std::string p) : path(std::move(p)) {}
    std::string findFile(fileType) override { return path; }
    std::string path;
};

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

bool exists(const std::string& path) { return QFile::exists(QString::fromStdString(path)); }

using CliTest = CtlTest;

TEST_F(CliTest, ReportPrintsTheTrafficSubmenusLinesAndJson)
{
    const CtlRun text = run({"report"});
    ASSERT_EQ(0, text.code) << text.err;
    EXPECT_EQ(reportText, text.out);
    const CtlRun json = run({"report", "--json"});
    ASSERT_EQ(0, json.code) << json.err;
    EXPECT_EQ(reportText, reportTextOf(json.out));
}

TEST_F(CliTest, StatusShowsTheAccountAndSwitchInternetFlipsIt)
{
    const CtlRun json = run({"status", "--json"});
    ASSERT_EQ(0, json.code) << json.err;
    EXPECT_EQ("", json.err);
    EXPECT_EQ(R"({"balance":42.5,"internet":true,"messages":2,"online":true})", compact(json.out));
    for (const char* expected : {"off", "on"}) {
        SCOPED_TRACE(expected);
        const CtlRun switched = run({"switch-internet"});
        ASSERT_EQ(0, switched.code) << switched.err;
        EXPECT_EQ(std::string("Internet: ") + expected + "\n", switched.out);
        zel5sim::Account a;
        ASSERT_TRUE(sim->getAccount(login, a));
        EXPECT_EQ(std::string(expected) == "on", a.internetStatus == 1);
        EXPECT_EQ(std::string("Internet: ") + expected + "\nBalance: 42.50\nMessages: 2\n", run({"status"}).out);
    }
}

TEST_F(CliTest, MessagesListTheStoreFilledOnceAndMoveOnlyTheTimeStamp)
{
    const auto settingsText = [&] {
        QFile file(QString::fromStdString(settingsPath()));
        return file.open(QIODevice::ReadOnly) ? file.readAll().toStdString() : "(unreadable)";
    };
    const std::string before = settingsText();
    const CtlRun text = run({"messages"});
    ASSERT_EQ(0, text.code) << text.err;
    EXPECT_EQ(localDate(messageTimes[0]) + "  Maintenance\nWorks & repairs on Saturday.\n\nSorry!\n\n" +
                  localDate(messageTimes[1]) + "  New tariffs\n- Home 100\n- Home 500\n",
              text.out);
    EXPECT_EQ("Maintenance;New tariffs;", storedSubjects(storePath()));
    EXPECT_EQ(messageTimes[1], lastMessageCheck());
    EXPECT_EQ(before, QByteArray::fromStdString(settingsText()).replace(QByteArray::number(messageTimes[1]), "0").toStdString())
        << "more than the time stamp changed in the settings file";

    // Asked again, the server has nothing new; the store as JSON.
    const CtlRun json = run({"messages", "--json"});
    ASSERT_EQ(0, json.code) << json.err;
    EXPECT_EQ(messagesJson(), compact(json.out));
    EXPECT_EQ("Maintenance;New tariffs;", storedSubjects(storePath()));
    EXPECT_GE(lastMessageCheck(), messageTimes[1]);

    // A lost time stamp (a crash after the store was saved) brings both again; they are stored once.
    ASSERT_NO_FATAL_FAILURE(writeSettings([](Config<QString>& s) { s.lastMessageCheck = 0; }));
    ASSERT_EQ(0, run({"status"}).code);
    EXPECT_EQ("Maintenance;New tariffs;", storedSubjects(storePath()));

    // A new one is added after the others.
    const std::int32_t newest = static_cast<std::int32_t>(std::time(nullptr)) + 60;
    ASSERT_TRUE(sim->withAccount(login, [&](zel5sim::Account& a) { a.messages.push_back({newest, "Later", "<p>x</p>"}); }));
    EXPECT_EQ("Internet: on\nBalance: 42.50\nMessages: 3\n", run({"status"}).out);
    EXPECT_EQ("Maintenance;New tariffs;Later;", storedSubjects(storePath()));
    EXPECT_EQ(newest, lastMessageCheck());
}

TEST_F(CliTest, FailuresEndWithTheirCodeAndOneLine)
{
    struct Case {
        const char* name;
        std::function<void(Config<QString>&)> change;
        int code;
        const char* says;
    };
    const LoopbackPort refusing(-1);
    const int nobody = refusing.port;
    ASSERT_NE(0, nobody);
    const Case cases[] = {
        {"wrong password", [](Config<QString>& s) { s.password = "wrong"; }, 4, "login refused"},
        {"nothing listens", [&](Config<QString>& s) { s.port = nobody; }, 5, "cannot be reached"},
        {"port 0", [](Config<QString>& s) { s.port = 0; }, 2, "settings are incomplete"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_NO_FATAL_FAILURE(writeSettings(c.change));
        const CtlRun status = run({"status"});
        EXPECT_TRUE(failedWith(c.code, status));
        EXPECT_NE(std::string::npos, status.err.find(c.says)) << status.err;
        EXPECT_LT(status.took, 12s);
        if (c.code != 2) { // offline the status is still told, and the stored messages counted
            EXPECT_EQ("Offline\nMessages: 0\n", status.out);
        }
        const CtlRun report = run({"report", "--json"});
        EXPECT_TRUE(failedWith(c.code, report));
        EXPECT_EQ("", report.out);
    }
}

TEST_F(CliTest, MissingSettingsGive2AndABadCommandLine1WithoutAConnection)
{
    ASSERT_NO_FATAL_FAILURE(writeSettings([](Config<QString>& s) { s.login.clear(); }));
    for (bool fileThere : {true, false}) {
        SCOPED_TRACE(fileThere ? "no login" : "no file");
        ASSERT_TRUE(fileThere || QFile::remove(QString::fromStdString(settingsPath())));
        for (const std::vector<std::string>& args : {std::vector<std::string>{"status"}, {"messages", "--json"}, {"switch-internet"}}) {
            const CtlRun r = run(args);
            EXPECT_TRUE(failedWith(2, r)) << shown(args);
            EXPECT_EQ("", r.out);
        }
    }
    for (const std::vector<std::string>& args : {std::vector<std::string>{}, {"stat"}, {"switch-internet", "--json"}}) {
        const CtlRun r = run(args);
        EXPECT_TRUE(failedWith(1, r)) << shown(args);
        EXPECT_NE(std::string::npos, r.err.find("zel5ctl --help")) << r.err;
        EXPECT_EQ("", r.out) << shown(args);
    }
    const CtlRun help = run({"--help"});
    EXPECT_EQ(0, help.code);
    for (const char* word : {"status", "report", "messages", "switch-internet", "waybar", "\n  1  ", "\n  6  "})
        EXPECT_NE(std::string::npos, help.out.find(word)) << word;
    const CtlRun version = run({"--version"});
    EXPECT_EQ(0, version.code);
    EXPECT_EQ(0u, version.out.rfind("zel5ctl ", 0)) << version.out;
    EXPECT_EQ(0, sim->connectionsAccepted());
}

TEST_F(CliTest, WaybarOncePrintsOneLineWithTheStatesClasses)
{
    // The first run fetches the two messages: they are new to it.
    const CtlRun first = run({"waybar", "--once", "--format", "text"});
    EXPECT_EQ(0, first.code) << first.err;
    EXPECT_EQ("42.50 +2 new messages\n", first.out);

    struct Case {
        const char* name;
        std::function<void(Config<QString>&)> settings;
        std::function<void(zel5sim::Account&)> account;
        int code;
        QStringList classes;
        QString text;
    };
    const auto same = [](Config<QString>&) {};
    const auto as = [](zel5sim::Account&) {};
    const Case cases[] = {
        {"nothing new", same, as, 0, {"internet-on"}, "42.50"},
        {"low balance", [](Config<QString>& s) { s.lowBalanceWarningOn = true; s.lowBalanceWarning = 50; }, as, 0,
         {"internet-on", "low-balance"}, "42.50"},
        {"internet off", same, [](zel5sim::Account& a) { a.internetStatus = 0; a.balance = -1.255; }, 0,
         {"internet-off"}, "-1.25"},
        {"offline", [](Config<QString>& s) { s.password = "wrong"; }, as, 4, {"offline"}, "\u2014"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_NO_FATAL_FAILURE(writeSettings([&](Config<QString>& s) {
            s.lastMessageCheck = lastMessageCheck();
            c.settings(s);
        }));
        ASSERT_TRUE(sim->withAccount(login, c.account));
        const CtlRun r = run({"waybar", "--once"});
        EXPECT_EQ(c.code, r.code) << r.err;
        ASSERT_EQ(1, std::count(r.out.begin(), r.out.end(), '\n')) << r.out;
        const QJsonObject line = QJsonDocument::fromJson(QByteArray::fromStdString(r.out)).object();
        EXPECT_EQ(QJsonArray::fromStringList(c.classes), line.value("class").toArray()) << r.out;
        EXPECT_EQ(c.classes.first(), line.value("alt").toString());
        EXPECT_EQ(c.text, line.value("text").toString());
        EXPECT_TRUE(line.value("tooltip").isString());
    }
}

TEST_F(CliTest, TheStoreIsWrittenOnlyUnderItsLockAndALockNotGivenWithinFiveSecondsGives6)
{
    auto held = std::make_unique<StoreLock>(0);
    ASSERT_TRUE(held->locked());
    ChildProcess child(command({"messages"}), environment(), ChildProcess::CaptureBoth);
    ASSERT_TRUE(child.started()) << child.startError();
    ASSERT_TRUE(sim->waitFor([&] { return sim->lastArgument(MiniClient::fnMessages) != 0; }, 10000))
        << "waited 10 s for zel5ctl to ask the server for messages";
    // It has the messages; for a second it must neither write nor end.
    for (const auto until = std::chrono::steady_clock::now() + 1s; std::chrono::steady_clock::now() < until;) {
        const auto ended = child.waitExit(50ms);
        ASSERT_FALSE(ended) << "zel5ctl ended while the test held the lock: " << ended->describe() << "\n"
                            << child.stderrText();
        ASSERT_FALSE(exists(storePath())) << "zel5ctl wrote the store while the test held the lock";
    }
    held.reset();
    const auto exit = child.waitExit(runBound);
    ASSERT_TRUE(exit) << "waited " << runBound.count() << " s for zel5ctl to end after the lock was released";
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
