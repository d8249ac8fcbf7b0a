// The account overview and its charts.
#include "accountoverview.h"
#include "balancechart.h"
#include "trafficchart.h"

#include <QApplication>
#include <QLabel>
#include <QPointer>
#include <QTemporaryDir>
#include <QTest>

#include <gtest/gtest.h>

namespace {

constexpr double MiB = 1048576.0;

long long mib(double n) { return static_cast<long long>(n * MiB); }
using S = MiniClient::ServiceReport;

QString rowsText(const TrafficChart& chart)
{
    QStringList rows;
    for (const TrafficChart::Row& r : chart.rows())
        rows << QStringLiteral("%1 %2 %3/%4/%5").arg(r.id).arg(r.name).arg(r.downloaded).arg(r.prepaid).arg(r.oldPrepaid);
    return rows.join(QStringLiteral(", "));
}

class OverviewTest : public ::testing::Test {
protected:
    AccountOverview::State state(bool online, bool known) const
    {
        return {online, known, true, 1234.5, QDateTime::fromSecsSinceEpoch(now), 1048576.0, &reports, &history};
    }
    QLabel* label(const char* name) { return w.findChild<QLabel*>(name); }

    QTemporaryDir dir;
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    BalanceHistory history{dir.filePath("balance_history")};
    MiniClient::ServiceList reports;
    AccountOverview w;
};

} // namespace

TEST(TrafficChartTest, RowsAreTheClassesOfAllThreeListsInTheReportsUnit)
{
    TrafficChart chart;
    chart.setReport(S{"Home", {{1, "Local", mib(2)}}, {{2, "World", mib(100)}, {1, "", mib(10)}, {4, "", 512}},
                            {{2, "World", mib(50)}, {3, "Night", mib(1.5)}, {2, "World", mib(1)}, {4, "Video", 0}}},
                    MiB);
    // Old prepaid stays apart; a class listed twice adds up; a name comes from whichever list has one.
    EXPECT_EQ(rowsText(chart), "1 Local 0/10/2, 2 World 51/100/0, 4 Video 0/0.000488281/0, 3 Night 1.5/0/0");
    chart.setReport(S{"Home", {}, {}, {{7, "Mail", 3000}}}, 0); // no divisor: the sizes as they came
    EXPECT_EQ(rowsText(chart), "7 Mail 3000/0/0");
}

// Odd histories (beyond double's precision or the calendar, an empty range) still draw the line.
TEST(BalanceChartTest, AnyHistoryIsDrawn)
{
    const QVector<QVector<BalanceHistory::Sample>> histories = {
        {{1700000000, 5}}, {{1700000000, 5}, {1700000060, 5}}, {{1700000000, 1e17}, {1700086400, 1e17 + 16}},
        {{0, 1}, {4000000000000, 2}}, {{-4000000000000, 1}, {1700000000, -1}}};
    BalanceChart chart;
    chart.resize(300, 200);
    const QRgb line = chart.palette().color(QPalette::Highlight).rgb();
    for (const auto& samples : histories) {
        chart.setSamples(samples, samples.constLast().time + 3600);
        const QImage image = chart.grab().toImage().convertToFormat(QImage::Format_RGB32);
        int drawn = 0;
        for (int y = 0; y < image.height(); ++y)
            for (int x = 0; x < image.width(); ++x)
                drawn += image.pixel(x, y) == (line | 0xff000000);
        EXPECT_GT(drawn, 20) << samples.constLast().balance;
    }
}

TEST_F(OverviewTest, TheTextsTellOnlineOfflineAndNeverKnownApart)
{
    const QString updated = "Updated " + QLocale().toString(QDateTime::fromSecsSinceEpoch(now), QLocale::ShortFormat);
    AccountOverview::State offline = state(false, true);
    offline.internetOn = false;
    w.setState(offline);
    EXPECT_EQ(w.balanceText(), "1,234.50") << "the last known balance stays";
    EXPECT_TRUE(w.statusText().startsWith("Offline — last known values\nInternet: off") && w.statusText().endsWith(updated))
        << w.statusText().toStdString();
    w.setState(state(false, false));
    EXPECT_EQ(w.statusText(), "No account data yet");
    EXPECT_EQ(w.balanceText(), "");
    EXPECT_TRUE(w.findChild<QWidget*>("scroll")->isHidden()) << "no charts without account data";

    // Online, the balance in the user's own notation.
    QLocale::setDefault(QLocale(QLocale::German, QLocale::Germany));
    w.setState(state(true, true));
    QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedStates));
    EXPECT_EQ(w.balanceText(), "1.234,50");
    EXPECT_TRUE(w.statusText().startsWith("Internet: on")) << w.statusText().toStdString();
    EXPECT_FALSE(w.findChild<QWidget*>("scroll")->isHidden());
}

TEST_F(OverviewTest, EachServiceHasItsChartAndNoReportSaysSo)
{
    reports = {S{"Home", {}, {{1, "World", 100}}, {{1, "World", 50}}}, S{"Office", {}, {}, {}},
               S{"Dacha", {}, {}, {{9, "Local", 7}}}};
    w.setState(state(true, true));
    ASSERT_EQ(w.trafficCharts().size(), 3);
    EXPECT_EQ(rowsText(*w.trafficCharts()[2]), QString("9 Local %1/0/0").arg(7 / MiB));
    EXPECT_TRUE(label("noTraffic")->isHidden());

    reports.pop_back(), reports.pop_back();
    w.setState(state(true, true));
    EXPECT_EQ(w.findChildren<TrafficChart*>().size(), 1) << "charts of gone services dropped";

    AccountOverview::State none = state(true, true);
    none.reports = nullptr;
    w.setState(none);
    EXPECT_TRUE(w.trafficCharts().isEmpty());
    EXPECT_EQ(label("noTraffic")->isHidden() ? "(hidden)" : label("noTraffic")->text(), "No traffic report yet");
}

// The window is the controller's for the whole run: closing it, either way, must not delete it.
TEST_F(OverviewTest, ClosingOnlyHidesTheWindow)
{
    auto* window = new AccountOverview;
    const QPointer<AccountOverview> alive = window;
    for (const bool escape : {false, true}) {
        window->show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(window, 5000)) << "the window shown";
        if (escape)
            QTest::keyClick(window, Qt::Key_Escape);
        else
            window->close();
        QApplication::processEvents();
        ASSERT_FALSE(alive.isNull()) << "escape " << escape;
        EXPECT_FALSE(window->isVisible()) << "escape " << escape;
    }
    delete window;
}
