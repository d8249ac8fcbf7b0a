// zel5ctl's parts that need no server, and the JSON and text forms it shares with the tray.
#include "barline.h"
#include "commandline.h"
#include "ctlrun.h"
#include "failure.h"
#include "htmltext.h"
#include "messagecollector.h"
#include "messagesjson.h"
#include "output.h"
#include "reportformat.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cerrno>
#include <tuple>

namespace {

using zel5test::PathFinder;

TEST(CommandLineTest, AcceptsEachCommandWithItsOptionsInAnyOrderAndRefusesMistakesWithTheirReason)
{
    // Arguments, command, --json, --once, text format.
    const std::tuple<QStringList, CommandLine::Command, bool, bool, bool> valid[] = {
        {{"--json", "report"}, CommandLine::Report, true, false, false},
        {{"waybar", "--once", "--format", "text"}, CommandLine::Waybar, false, true, true},
        {{"waybar", "--format=json"}, CommandLine::Waybar, false, false, false},
        {{"status", "-h"}, CommandLine::Help, false, false, false},
        {{"--version", "--help"}, CommandLine::Help, false, false, false},
    };
    for (const auto& [args, command, json, once, plainText] : valid) {
        SCOPED_TRACE(args.join(' ').toStdString());
        CommandLine line;
        QString error;
        ASSERT_TRUE(line.parse(args, error)) << error.toStdString();
        EXPECT_EQ(command, line.command);
        EXPECT_EQ(std::tuple(json, once, plainText), std::tuple(line.json, line.once, line.plainText));
    }

    const std::pair<QStringList, QString> mistakes[] = {
        {{}, "no command given"},
        {{"stats"}, "unknown command \"stats\""},
        {{"status", "--verbose"}, "unknown option --verbose"},
        {{"switch-internet", "--json"}, "switch-internet does not take --json"},
        {{"waybar", "--format"}, "--format takes \"json\" or \"text\""},
        {{"--", "--json"}, "unknown command \"--json\""},
    };
    for (const auto& [args, reason] : mistakes) {
        SCOPED_TRACE(args.join(' ').toStdString());
        CommandLine line;
        QString error;
        EXPECT_FALSE(line.parse(args, error));
        EXPECT_EQ(reason.toStdString(), error.toStdString());
    }
}

TEST(FailureTest, ConnectAndCallResultsMapOntoExitCodes)
{
    const std::tuple<int, int, Failure::Code, const char*> cases[] = {
        {MiniClient::rcOk, 0, Failure::Ok, ""},
        {MiniClient::rcIncompleteSettings, 0, Failure::IncompleteSettings, "settings are incomplete"},
        {MiniClient::rcBadAddress, -2, Failure::BadAddress, "cannot resolve the server address \"b.example\""},
        {MiniClient::rcSessionFailed, EACCES, Failure::LoginRefused, "login refused"},
        {MiniClient::rcSessionFailed, EBADMSG, Failure::Failed, "b.example:11758 is not a billing server"},
        {MiniClient::rcSessionFailed, ECONNREFUSED, Failure::Unreachable, "cannot be reached: connection refused"},
    };
    for (const auto& [result, error, code, says] : cases) {
        SCOPED_TRACE(std::to_string(result) + "/" + std::to_string(error));
        const Failure f = Failure::fromConnect(result, error, "b.example", 11758);
        EXPECT_EQ(code, f.code);
        EXPECT_TRUE(f.message.contains(QLatin1String(says))) << f.message.toStdString();
        EXPECT_FALSE(f.message.contains('\n'));
    }
    // A call that failed at its bound got no answer; one that failed sooner broke the exchange.
    EXPECT_EQ(Failure::Unreachable, Failure::fromCall(30000, 30000, "h", 1).code);
    EXPECT_TRUE(Failure::fromCall(30450, 30000, "h", 1).message.contains("within 30 s"));
    EXPECT_EQ(Failure::Failed, Failure::fromCall(29999, 30000, "h", 1).code);
}

AccountState online(double balance, bool internet, bool fresh = false, int newCount = 0)
{
    return {.online = true, .internetOn = internet, .balance = balance, .newMessages = fresh, .newCount = newCount};
}

TEST(BarLineTest, ClassesTextAndTooltipFollowTheStateTheLowBalanceLevelAndNewMessages)
{
    const AccountState offline{.newMessages = true};
    const struct {
        AccountState state;
        bool lowOn;
        double low;
        QStringList classes;
        const char *text, *tooltip;
    } cases[] = {
        {online(1234.5, true), false, 0, {"internet-on"}, "1234.50", "Balance: 1234.50\nInternet: on"},
        {offline, true, 100, {"offline", "new-messages"}, "\u2014", "Offline\nLogin refused: check the login\nNew messages"},
        {online(9.99, true), true, 10, {"internet-on", "low-balance"}, "9.99", nullptr},
        {online(10, true), true, 10, {"internet-on"}, "10.00", nullptr},
        {online(-5, false), true, -1, {"internet-off", "low-balance"}, "-5.00", nullptr},
        {online(-3.456, false, true, 2), true, 5, {"internet-off", "low-balance", "new-messages"}, "-3.46",
         "Balance: -3.46\nInternet: off\n2 new messages"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        BarLine bar;
        bar.lowBalanceOn = c.lowOn;
        bar.lowBalance = c.low;
        bar.offlineReason = "login refused: check the login";
        const QJsonObject json = bar.waybar(c.state);
        EXPECT_EQ(c.classes.first(), json.value("alt").toString());
        EXPECT_EQ(QJsonArray::fromStringList(c.classes), json.value("class").toArray());
        EXPECT_EQ(QString::fromUtf8(c.text), json.value("text").toString());
        EXPECT_TRUE(!c.tooltip || c.tooltip == json.value("tooltip").toString()) << json.value("tooltip").toString().toStdString();
        EXPECT_FALSE(bar.line(c.state, false).contains('\n')) << "one line, whatever the tooltip holds";
    }
    EXPECT_EQ("-3.46 internet off +2 new messages", BarLine().text(online(-3.456, false, true, 2)));
}

// Offline the status has no balance, whatever was left from before the session was lost.
TEST(OutputTest, OfflineStatusHasNoBalance)
{
    const AccountState s{.internetOn = true, .balance = 12, .storedMessages = 3};
    EXPECT_EQ("Offline\nMessages: 3\n", Output::statusText(s).toStdString());
    const QJsonObject json = Output::statusJson(s);
    EXPECT_EQ(QJsonValue(false), json.value("internet"));
    EXPECT_TRUE(json.value("balance").isNull());
}

TEST(ReportFormatTest, JsonKeepsExactSizesAndJsonThatIsNoReportKeepsTheOldOne)
{
    // Through text, as it travels over D-Bus.
    const MiniClient::ServiceList sample = {{"a", {}, {{-2, "n", 1}, {1, "d", 21474836480LL}}, {}}, {"b", {}, {}, {}}};
    const QJsonObject json = QJsonDocument::fromJson(QJsonDocument(reportJson(sample, 1000)).toJson()).object();
    MiniClient::ServiceList back;
    int divisor = 0;
    QString error;
    ASSERT_TRUE(reportFromJson(json, back, divisor, error)) << error.toStdString();
    ASSERT_TRUE(divisor == 1000 && back.size() == 2u);
    EXPECT_EQ(1, back.front().prepaid.at(0).size);
    EXPECT_EQ(21474836480LL, back.front().prepaid.at(1).size);

    const std::pair<const char*, const char*> bad[] = {
        {R"({"services": []})", "\"sizeDivisor\" is not a whole number"},
        {R"({"sizeDivisor": 1, "services": [{"name": "a", "oldPrepaid": [], "prepaid": [],
             "downloaded": [{"id": 1, "name": "x", "bytes": -1}]}]})",
         "services[0].downloaded[0] needs"},
    };
    for (const auto& [text, reason] : bad) {
        SCOPED_TRACE(text);
        divisor = 7;
        EXPECT_FALSE(reportFromJson(QJsonDocument::fromJson(text).object(), back, divisor, error));
        EXPECT_TRUE(error.startsWith(QLatin1String(reason))) << error.toStdString();
        EXPECT_TRUE(divisor == 7 && back.size() == 2u) << "the old report kept";
    }
}

TEST(MessagesJsonTest, ListsTheStoreOldestFirst)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    PathFinder finder(dir.filePath("messages").toStdString());
    MessageCollector store(&finder);
    EXPECT_TRUE(messagesJson(store).isEmpty());
    for (std::string i : {"1", "2"}) {
        std::string subject = "s" + i, text = "<p>t" + i + "</p>", date = "0" + i + ".01.2024 10:00:00";
        store.insertMessage(subject, text, date);
    }
    EXPECT_EQ(R"([{"date":"01.01.2024 10:00:00","subject":"s1","text":"<p>t1</p>"},)"
              R"({"date":"02.01.2024 10:00:00","subject":"s2","text":"<p>t2</p>"}])",
              QJsonDocument(messagesJson(store)).toJson(QJsonDocument::Compact).toStdString());
}

TEST(HtmlTextTest, TagsGoEntitiesAreDecodedBlocksBreakLines)
{
    const std::pair<const char*, const char*> cases[] = {
        {"<p>Dear subscriber,</p><p>see <a href=\"x\">our page</a>.</p>", "Dear subscriber,\n\nsee our page."},
        {"Fish &amp; Chips &lt;b&gt; &quot;q&quot; &#39;s&#39; a&nbsp;b", "Fish & Chips <b> \"q\" 's' a b"},
        {"&#8364; &#x20AC; &apos; &copy; &amp", "\u20ac \u20ac ' &copy; &amp"},
        {"&#0; &#x110000; &#xD800;", "&#0; &#x110000; &#xD800;"},
        {"  lots \n of\t\tspace  ", "lots of space"},
        {"<ul><li>first</li><li>second</li></ul>", "- first\n- second"},
        {"<table><tr><th>A</th><th>B</th></tr><tr><td>1</td><td>2</td></tr></table>after", "A  B\n1  2\n\nafter"},
        {"x<!-- <p>hidden</p> -->y", "xy"},
        {"<style>p { color: red }</style><script>if (a < b) x();</script>shown", "shown"},
        {"cut <b", "cut"},
    };
    for (const auto& [html, text] : cases) {
        SCOPED_TRACE(html);
        EXPECT_EQ(QString::fromUtf8(text).toStdString(), htmlToText(QString::fromUtf8(html)).toStdString());
    }
}

} // namespace
