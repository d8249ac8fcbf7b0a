// zel5ctl's commands as a user or a script runs them, without a tray.
#include "ctlrun.h"
#include "filefinder.h"
#include "messagecollector.h"
#include "reportformat.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <sys/socket.h>
#include <netinet/in.h>
#include <unistd.h>

namespace zel5test {
namespace {

QJsonDocument parsed(const std::string& text)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(text), &error);
    EXPECT_EQ(QJsonParseError::NoError, error.error) << error.errorString().toStdString() << " in: " << text;
    return document;
}

class PathFinder : public FileFinder {
public:
    explicit PathFinder(std::string p) : path(std::move(p)) {}
    std::string findFile(fileType) override { return path; }
    std::string path;
};

// The store as the tray reads it.
std::vector<MessageCollector::ZELMessage> stored(const std::string& path)
{
    PathFinder finder(path);
    MessageCollector store(&finder);
    std::vector<MessageCollector::ZELMessage> list;
    while (store.currentIndex() > 0)
        store.prevMessage();
    MessageCollector::ZELMessage m;
    for (std::size_t i = 0; i < store.count(); ++i, store.nextMessage()) {
        store.currentMessage(m.subject, m.text, m.date);
        list.push_back(m);
    }
    return list;
}

int lastMessageCheck()
{
    Config<QString> settings;
    EXPECT_TRUE(settings._load()) << "the settings no longer load";
    return settings.lastMessageCheck;
}

// A loopback port where nothing listens: bound once, then let go.
int closedPort()
{
    const int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t n = sizeof a;
    const bool bound = ::bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0
                       && ::getsockname(s, reinterpret_cast<sockaddr*>(&a), &n) == 0;
    ::close(s);
    return bound ? ntohs(a.sin_port) : 0;
}

using CliTest = CtlTest;

TEST_F(CliTest, ReportPrintsTheTrafficSubmenusLinesAndJson)
{
    const CtlRun text = run({"report"});
    ASSERT_EQ(0, text.code) << text.err;
    EXPECT_EQ("Service: Mail & Web\n"
              "Old Prepaid:\n"
              "    Traffic Class: Day (1), Size: 512.00 Mb\n"
              "Prepaid:\n"
              "    Traffic Class: Day (1), Size: 1024.00 Mb\n"
              "    Traffic Class: Night (2), Size: 0.00 Mb\n"
              "Downloaded:\n"
              "    Traffic Class: Local (3), Size: 1.50 Mb\n"
              "Service: TV\n"
              "Old Prepaid:\n"
              "Prepaid:\n"
              "Downloaded:\n"
              "    Traffic Class: Television (7), Size: 10.00 Mb\n",
              text.out);

    // The JSON carries what the text shows.
    const CtlRun json = run({"report", "--json"});
    ASSERT_EQ(0, json.code) << json.err;
    MiniClient::ServiceList report;
    int divisor = 0;
    QString error;
    ASSERT_TRUE(reportFromJson(parsed(json.out).object(), report, divisor, error)) << error.toStdString();
    EXPECT_EQ(text.out, reportLines(report, divisor).join('\n').toStdString() + "\n");
}

TEST_F(CliTest, StatusShowsTheAccountAndSwitchInternetFlipsIt)
{
    const CtlRun json = run({"status", "--json"});
    ASSERT_EQ(0, json.code) << json.err;
    EXPECT_EQ("", json.err);
    const QJsonObject status = parsed(json.out).object();
    for (const auto& [key, value] : {std::pair{"online", QJsonValue(true)}, {"internet", QJsonValue(true)},
                                     {"balance", QJsonValue(42.5)}, {"messages", QJsonValue(2)}})
        EXPECT_EQ(value, status.value(key)) << key;
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
    std::vector<MessageCollector::ZELMessage> list = stored(storePath());
    ASSERT_EQ(2u, list.size());
    EXPECT_EQ("Maintenance", list[0].subject);
    EXPECT_EQ(localDate(messageTimes[0]), list[0].date);
    EXPECT_EQ("<ul><li>Home 100</li><li>Home 500</li></ul>", list[1].text);
    EXPECT_EQ(messageTimes[1], lastMessageCheck());
    // Nothing but the time stamp changed in the settings file.
    EXPECT_EQ(before, QByteArray::fromStdString(settingsText()).replace(QByteArray::number(messageTimes[1]), "0").toStdString());

    // Asked again, the server has nothing new; the store as JSON.
    const CtlRun json = run({"messages", "--json"});
    ASSERT_EQ(0, json.code) << json.err;
    const QJsonArray listed = parsed(json.out).array();
    ASSERT_EQ(2, listed.size());
    EXPECT_EQ((QJsonObject{{"date", QString::fromStdString(localDate(messageTimes[0]))}, {"subject", "Maintenance"},
                           {"text", "<p>Works &amp; repairs on <b>Saturday</b>.</p><p>Sorry!</p>"}}),
              listed.at(0).toObject());
    EXPECT_EQ("New tariffs", listed.at(1).toObject().value("subject").toString());
    EXPECT_EQ(2u, stored(storePath()).size());
    EXPECT_GE(lastMessageCheck(), messageTimes[1]);

    // A lost time stamp (a crash after the store was saved) brings both again; they are stored once.
    ASSERT_NO_FATAL_FAILURE(writeSettings([](Config<QString>& s) { s.lastMessageCheck = 0; }));
    ASSERT_EQ(0, run({"status"}).code);
    EXPECT_EQ(2u, stored(storePath()).size());

    // A new one is added after the others.
    const std::int32_t newest = static_cast<std::int32_t>(std::time(nullptr)) + 60;
    ASSERT_TRUE(sim->withAccount(login, [&](zel5sim::Account& a) { a.messages.push_back({newest, "Later", "<p>x</p>"}); }));
    EXPECT_EQ("Internet: on\nBalance: 42.50\nMessages: 3\n", run({"status"}).out);
    list = stored(storePath());
    ASSERT_EQ(3u, list.size());
    EXPECT_EQ("Later", list[2].subject);
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
    const int nobody = closedPort();
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
        EXPECT_LT(status.took, std::chrono::seconds(12));
        // Offline the status is still told, and the stored messages counted.
        if (c.code != 2) {
            EXPECT_EQ("Offline\nMessages: 0\n", status.out);
        }
        const CtlRun report = run({"report", "--json"});
        EXPECT_TRUE(failedWith(c.code, report));
        EXPECT_EQ("", report.out);
    }
}

TEST_F(CliTest, IncompleteSettingsGive2WithoutAConnection)
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
    EXPECT_EQ(0, sim->connectionsAccepted());
}

TEST_F(CliTest, ABadCommandLineGives1AndTouchesNothing)
{
    for (const std::vector<std::string>& args : {std::vector<std::string>{}, {"stat"}, {"switch-internet", "--json"}}) {
        const CtlRun r = run(args);
        EXPECT_TRUE(failedWith(1, r)) << shown(args);
        EXPECT_NE(std::string::npos, r.err.find("zel5ctl --help")) << r.err;
        EXPECT_EQ("", r.out) << shown(args);
    }
    EXPECT_EQ(0, sim->connectionsAccepted());
}

TEST_F(CliTest, HelpListsTheCommandsAndExitCodes)
{
    const CtlRun help = run({"--help"});
    EXPECT_EQ(0, help.code);
    for (const char* word : {"status", "report", "messages", "switch-internet", "waybar", "\n  1  ", "\n  6  "})
        EXPECT_NE(std::string::npos, help.out.find(word)) << word;
    const CtlRun version = run({"--version"});
    EXPECT_EQ(0, version.code);
    EXPECT_EQ(0u, version.out.rfind("zel5ctl ", 0)) << version.out;
}

struct WaybarCase {
    const char* name;
    std::function<void(Config<QString>&)> settings;
    std::function<void(zel5sim::Account&)> account;
    int code;
    QStringList classes;
    QString text;
};

TEST_F(CliTest, WaybarOncePrintsOneJsonLineWithTheStatesClasses)
{
    const auto same = [](Config<QString>&) {};
    const auto as = [](zel5sim::Account&) {};
    const WaybarCase cases[] = {
        // The first run fetches the two messages: they are new to it.
        {"first run", same, as, 0, {"internet-on", "new-messages"}, "42.50"},
        {"nothing new", same, as, 0, {"internet-on"}, "42.50"},
        {"low balance", [](Config<QString>& s) { s.lowBalanceWarningOn = true; s.lowBalanceWarning = 50; }, as, 0,
         {"internet-on", "low-balance"}, "42.50"},
        {"above the level", [](Config<QString>& s) { s.lowBalanceWarningOn = true; s.lowBalanceWarning = 40; }, as, 0,
         {"internet-on"}, "42.50"},
        {"internet off", same, [](zel5sim::Account& a) { a.internetStatus = 0; a.balance = -1.255; }, 0,
         {"internet-off"}, "-1.25"},
        {"offline", [](Config<QString>& s) { s.password = "wrong"; }, as, 4, {"offline"}, "\u2014"},
    };
    for (const WaybarCase& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_NO_FATAL_FAILURE(writeSettings([&](Config<QString>& s) {
            s.lastMessageCheck = lastMessageCheck();
            c.settings(s);
        }));
        ASSERT_TRUE(sim->withAccount(login, c.account));
        const CtlRun r = run({"waybar", "--once"});
        EXPECT_EQ(c.code, r.code) << r.err;
        ASSERT_EQ(1, std::count(r.out.begin(), r.out.end(), '\n')) << r.out;
        const QJsonObject line = parsed(r.out).object();
        EXPECT_EQ(QJsonArray::fromStringList(c.classes), line.value("class").toArray()) << r.out;
        EXPECT_EQ(c.classes.first(), line.value("alt").toString());
        EXPECT_EQ(c.text, line.value("text").toString());
        EXPECT_TRUE(line.value("tooltip").isString());
    }
}

TEST_F(CliTest, WaybarInPlainTextForPolybar)
{
    const CtlRun r = run({"waybar", "--once", "--format", "text"});
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_EQ("42.50 +2 new messages\n", r.out);
}

} // namespace
} // namespace zel5test
