// zel5ctl's parts that decide without a server: command line, failures, status bar line.
#include "barline.h"
#include "commandline.h"
#include "failure.h"
#include "miniclient.h"

#include <QJsonArray>

#include <gtest/gtest.h>

#include <cerrno>

namespace {

struct Valid {
    QStringList args;
    CommandLine::Command command;
    bool json, once, plainText;
};

TEST(CommandLineTest, AcceptsEachCommandWithItsOptionsInAnyOrder)
{
    const Valid cases[] = {
        {{"status", "--json"}, CommandLine::Status, true, false, false},
        {{"--json", "report"}, CommandLine::Report, true, false, false},
        {{"messages", "--json"}, CommandLine::Messages, true, false, false},
        {{"switch-internet"}, CommandLine::SwitchInternet, false, false, false},
        {{"waybar", "--once", "--format", "text"}, CommandLine::Waybar, false, true, true},
        {{"waybar", "--format=json"}, CommandLine::Waybar, false, false, false},
        {{"status", "-h"}, CommandLine::Help, false, false, false},
        {{"help"}, CommandLine::Help, false, false, false},
        {{"-V"}, CommandLine::Version, false, false, false},
        {{"--version", "--help"}, CommandLine::Help, false, false, false},
    };
    for (const Valid& c : cases) {
        SCOPED_TRACE(c.args.join(' ').toStdString());
        CommandLine line;
        QString error;
        ASSERT_TRUE(line.parse(c.args, error)) << error.toStdString();
        EXPECT_EQ(c.command, line.command);
        EXPECT_EQ(c.json, line.json);
        EXPECT_EQ(c.once, line.once);
        EXPECT_EQ(c.plainText, line.plainText);
    }
}

TEST(CommandLineTest, RefusesMistakesWithTheirReason)
{
    const std::pair<QStringList, QString> cases[] = {
        {{}, "no command given"},
        {{"stats"}, "unknown command \"stats\""},
        {{"status", "report"}, "unexpected argument \"report\""},
        {{"status", "--verbose"}, "unknown option --verbose"},
        {{"status", "--json=yes"}, "option --json takes no value"},
        {{"switch-internet", "--json"}, "switch-internet does not take --json"},
        {{"status", "--once"}, "status does not take --once"},
        {{"report", "--format", "text"}, "report does not take --format"},
        {{"waybar", "--format", "xml"}, "--format takes \"json\" or \"text\""},
        {{"waybar", "--format"}, "--format takes \"json\" or \"text\""},
        {{"--", "--json"}, "unknown command \"--json\""},
    };
    for (const auto& [args, reason] : cases) {
        SCOPED_TRACE(args.join(' ').toStdString());
        CommandLine line;
        QString error;
        EXPECT_FALSE(line.parse(args, error));
        EXPECT_EQ(reason.toStdString(), error.toStdString());
    }
}

TEST(FailureTest, ConnectResultsMapOntoExitCodes)
{
    struct Case {
        int result, error;
        Failure::Code code;
        const char* says;
    };
    const Case cases[] = {
        {MiniClient::rcOk, 0, Failure::Ok, ""},
        {MiniClient::rcIncompleteSettings, 0, Failure::IncompleteSettings, "settings are incomplete"},
        {MiniClient::rcBadAddress, -2, Failure::BadAddress, "cannot resolve the server address \"b.example\""},
        {MiniClient::rcSessionFailed, EACCES, Failure::LoginRefused, "login refused"},
        {MiniClient::rcSessionFailed, EBADMSG, Failure::Failed, "b.example:11758 is not a billing server"},
        {MiniClient::rcSessionFailed, ECONNREFUSED, Failure::Unreachable, "cannot be reached: connection refused"},
        {MiniClient::rcSessionFailed, EPROTO, Failure::Unreachable, "cannot be reached"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.result) + "/" + std::to_string(c.error));
        const Failure f = Failure::fromConnect(c.result, c.error, "b.example", 11758);
        EXPECT_EQ(c.code, f.code);
        EXPECT_TRUE(f.message.contains(QLatin1String(c.says))) << f.message.toStdString();
        EXPECT_FALSE(f.message.contains('\n'));
    }
}

TEST(FailureTest, ACallThatFailedAtItsBoundIsNoAnswerAndSoonerABrokenExchange)
{
    EXPECT_EQ(Failure::Unreachable, Failure::fromCall(30000, 30000, "h", 1).code);
    EXPECT_TRUE(Failure::fromCall(30450, 30000, "h", 1).message.contains("within 30 s"));
    EXPECT_EQ(Failure::Failed, Failure::fromCall(29999, 30000, "h", 1).code);
}

AccountState online(double balance, bool internet, bool fresh = false, int newCount = 0)
{
    AccountState s;
    s.online = true, s.internetOn = internet, s.balance = balance, s.newMessages = fresh, s.newCount = newCount;
    return s;
}

TEST(BarLineTest, ClassesFollowTheStateTheLowBalanceLevelAndNewMessages)
{
    struct Case {
        const char* name;
        AccountState state;
        bool lowOn;
        double low;
        QStringList classes;
    };
    AccountState offlineWithNews;
    offlineWithNews.newMessages = true;
    const Case cases[] = {
        {"on", online(10, true), false, 0, {"internet-on"}},
        {"off", online(10, false), false, 0, {"internet-off"}},
        {"offline", AccountState(), true, 100, {"offline"}},
        {"offline with news", offlineWithNews, false, 0, {"offline", "new-messages"}},
        {"below the level", online(9.99, true), true, 10, {"internet-on", "low-balance"}},
        {"at the level", online(10, true), true, 10, {"internet-on"}},
        {"level not set", online(-5, false), false, 10, {"internet-off"}},
        {"negative level", online(-5, false), true, -1, {"internet-off", "low-balance"}},
        {"everything", online(1, false, true, 2), true, 5, {"internet-off", "low-balance", "new-messages"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        BarLine bar;
        bar.lowBalanceOn = c.lowOn;
        bar.lowBalance = c.low;
        EXPECT_EQ(c.classes, bar.classes(c.state));
        const QJsonObject json = bar.waybar(c.state);
        EXPECT_EQ(c.classes.first(), json.value("alt").toString());
        EXPECT_EQ(QJsonArray::fromStringList(c.classes), json.value("class").toArray());
    }
}

TEST(BarLineTest, TextAndTooltipInTheTraysWords)
{
    BarLine bar;
    QJsonObject line = bar.waybar(online(1234.5, true));
    EXPECT_EQ("1234.50", line.value("text").toString());
    EXPECT_EQ("Balance: 1234.50\nInternet: on", line.value("tooltip").toString());

    line = bar.waybar(online(-3.456, false, true, 2));
    EXPECT_EQ("-3.46", line.value("text").toString());
    EXPECT_EQ("Balance: -3.46\nInternet: off\n2 new messages", line.value("tooltip").toString());
    EXPECT_EQ("-3.46 internet off +2 new messages", bar.text(online(-3.456, false, true, 2)));

    // The tray tells only that there are new messages, not how many.
    EXPECT_EQ("Balance: 5.00\nInternet: on\nNew messages", bar.waybar(online(5, true, true)).value("tooltip").toString());

    bar.offlineReason = "login refused: check the login";
    line = bar.waybar(AccountState());
    EXPECT_EQ("Offline\nLogin refused: check the login", line.value("tooltip").toString());
    EXPECT_EQ("offline", bar.text(AccountState()));
    // One line, whatever the tooltip holds.
    EXPECT_FALSE(bar.line(AccountState(), false).contains('\n'));
}

} // namespace
