// The text and JSON forms the tray and zel5ctl share, and zel5ctl's own.
#include "filefinder.h"
#include "htmltext.h"
#include "messagecollector.h"
#include "messagesjson.h"
#include "output.h"
#include "reportformat.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

MiniClient::ServiceList sampleReport()
{
    return {{"Mail & Web %4", {{1, "Day", 536870912}}, {{1, "Day", 21474836480LL}, {-2, "Night (\xc3\xbc)", 1}}, {}},
            {"TV", {}, {}, {{7, "%1 %2", 1572864}}}};
}

TEST(ReportFormatTest, LinesAreTheTrafficSubmenusText)
{
    const QStringList expected{
        "Service: Mail & Web %4",
        "Old Prepaid:",
        "    Traffic Class: Day (1), Size: 512.00 Mb",
        "Prepaid:",
        "    Traffic Class: Day (1), Size: 20480.00 Mb",
        "    Traffic Class: Night (\u00fc) (-2), Size: 0.00 Mb",
        "Downloaded:",
        "Service: TV",
        "Old Prepaid:",
        "Prepaid:",
        "Downloaded:",
        "    Traffic Class: %1 %2 (7), Size: 1.50 Mb",
    };
    EXPECT_EQ(expected, reportLines(sampleReport(), 1048576.0));
    EXPECT_TRUE(reportLines({}, 1048576.0).isEmpty());
}

TEST(ReportFormatTest, JsonCarriesEveryValueAndReadsBackTheSame)
{
    const QJsonObject json = reportJson(sampleReport(), 1048576);
    EXPECT_EQ(1048576, json.value("sizeDivisor").toInt());
    const QJsonArray services = json.value("services").toArray();
    ASSERT_EQ(2, services.size());
    const QJsonObject mail = services.at(0).toObject();
    EXPECT_EQ("Mail & Web %4", mail.value("name").toString());
    const QJsonObject night = mail.value("prepaid").toArray().at(1).toObject();
    EXPECT_EQ(-2, night.value("id").toInt());
    EXPECT_EQ("Night (\u00fc)", night.value("name").toString());
    EXPECT_EQ(1, night.value("bytes").toInteger());
    EXPECT_EQ(21474836480LL, mail.value("prepaid").toArray().at(0).toObject().value("bytes").toInteger());

    // Through text, as it travels over D-Bus.
    const QJsonObject travelled = QJsonDocument::fromJson(QJsonDocument(json).toJson()).object();
    MiniClient::ServiceList back;
    int divisor = 0;
    QString error;
    ASSERT_TRUE(reportFromJson(travelled, back, divisor, error)) << error.toStdString();
    EXPECT_EQ(1048576, divisor);
    EXPECT_EQ(reportLines(sampleReport(), 1048576.0), reportLines(back, divisor));
}

TEST(ReportFormatTest, ReadingRefusesWhatIsNoReportAndKeepsTheOldOne)
{
    const std::pair<const char*, const char*> cases[] = {
        {R"({"services": []})", "\"sizeDivisor\" is not a whole number"},
        {R"({"sizeDivisor": 1})", "\"services\" is not a list"},
        {R"({"sizeDivisor": 1, "services": [{"oldPrepaid": []}]})", "services[0] has no \"name\""},
        {R"({"sizeDivisor": 1, "services": [{"name": "a", "oldPrepaid": [], "prepaid": [{"id": 1, "name": "x"}],
             "downloaded": []}]})",
         "services[0].prepaid[0] needs"},
        {R"({"sizeDivisor": 1, "services": [{"name": "a", "oldPrepaid": [], "prepaid": [],
             "downloaded": [{"id": 1, "name": "x", "bytes": -1}]}]})",
         "services[0].downloaded[0] needs"},
    };
    for (const auto& [text, reason] : cases) {
        SCOPED_TRACE(text);
        MiniClient::ServiceList services = sampleReport();
        int divisor = 7;
        QString error;
        EXPECT_FALSE(reportFromJson(QJsonDocument::fromJson(text).object(), services, divisor, error));
        EXPECT_TRUE(error.startsWith(QLatin1String(reason))) << error.toStdString();
        EXPECT_EQ(7, divisor);
        EXPECT_EQ(2u, services.size());
    }
}

class PathFinder : public FileFinder {
public:
    explicit PathFinder(std::string p) : path(std::move(p)) {}
    std::string findFile(fileType) override { return path; }
    std::string path;
};

TEST(MessagesJsonTest, ListsTheStoreOldestFirstAndLeavesTheCursorWhereItWas)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    PathFinder finder(dir.filePath("messages").toStdString());
    MessageCollector store(&finder);
    EXPECT_TRUE(messagesJson(store).isEmpty());
    for (std::string i : {"1", "2", "3", "4"}) {
        std::string subject = "s" + i, text = "<p>t" + i + "</p>", date = "0" + i + ".01.2024 10:00:00";
        store.insertMessage(subject, text, date);
    }
    for (std::size_t at : {0u, 1u, 3u}) {
        while (store.currentIndex() > at)
            store.prevMessage();
        const QJsonArray list = messagesJson(store);
        ASSERT_EQ(4, list.size());
        EXPECT_EQ("s1", list.at(0).toObject().value("subject").toString());
        EXPECT_EQ("<p>t4</p>", list.at(3).toObject().value("text").toString());
        EXPECT_EQ("02.01.2024 10:00:00", list.at(1).toObject().value("date").toString());
        EXPECT_EQ(at, store.currentIndex());
        while (store.currentIndex() < 3)
            store.nextMessage();
    }
}

TEST(HtmlTextTest, TagsGoEntitiesAreDecodedBlocksBreakLines)
{
    const std::pair<const char*, const char*> cases[] = {
        {"plain text", "plain text"},
        {"<p>Dear subscriber,</p><p>see <a href=\"x\">our page</a>.</p>", "Dear subscriber,\n\nsee our page."},
        {"Fish &amp; Chips &lt;b&gt; &quot;q&quot; &#39;s&#39; a&nbsp;b", "Fish & Chips <b> \"q\" 's' a b"},
        {"&#8364; &#x20AC; &apos; &copy; &amp", "\u20ac \u20ac ' &copy; &amp"},
        {"&#0; &#x110000; &#xD800;", "&#0; &#x110000; &#xD800;"},
        {"one<br>two<br/><br />four", "one\ntwo\n\nfour"},
        {"  lots \n of\t\tspace  ", "lots of space"},
        {"<ul><li>first</li><li>second</li></ul>", "- first\n- second"},
        {"<table><tr><th>A</th><th>B</th></tr><tr><td>1</td><td>2</td></tr></table>after", "A  B\n1  2\n\nafter"},
        {"a < b and c > d", "a < b and c > d"},
        {"x<!-- <p>hidden</p> -->y", "xy"},
        {"<style>p { color: red }</style><script>if (a < b) x();</script>shown", "shown"},
        {"<H1>Title</H1><DIV>Body</DIV>", "Title\n\nBody"},
        {"cut <b", "cut"},
        {"", ""},
    };
    for (const auto& [html, text] : cases) {
        SCOPED_TRACE(html);
        EXPECT_EQ(QString::fromUtf8(text).toStdString(), htmlToText(QString::fromUtf8(html)).toStdString());
    }
}

TEST(OutputTest, OfflineTheStatusHasNoBalance)
{
    AccountState s;
    s.internetOn = true; // left from before the session was lost
    s.balance = 12;
    s.storedMessages = 3;
    EXPECT_EQ("Offline\nMessages: 3\n", Output::statusText(s).toStdString());
    const QJsonObject json = Output::statusJson(s);
    EXPECT_EQ(QJsonValue(false), json.value("internet"));
    EXPECT_TRUE(json.value("balance").isNull());
}

} // namespace
