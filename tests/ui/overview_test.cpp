// The account overview and its charts. With ZEL5_OVERVIEW_SHOTS set to a
// folder, the rendering test also saves its pictures there for a look.
#include "accountoverview.h"
#include "balancechart.h"
#include "trafficchart.h"

#include <QApplication>
#include <QLabel>
#include <QPointer>
#include <QStyle>
#include <QTemporaryDir>
#include <QTest>

#include <gtest/gtest.h>

namespace {

constexpr qint64 Day = 86400;
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

// The style's own colours turned around: light text on a dark ground.
QPalette darkPalette()
{
    QPalette p = QApplication::style()->standardPalette();
    for (int role = 0; role < QPalette::NColorRoles; ++role)
        p.setColor(QPalette::ColorRole(role), QColor::fromRgb(~p.color(QPalette::ColorRole(role)).rgb()));
    return p;
}

// How many pixels of `image` lie within `tolerance` of `color` in each channel.
int pixelsNear(const QImage& image, const QColor& color, int tolerance = 40)
{
    int count = 0;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x) {
            const QColor c = image.pixelColor(x, y);
            count += std::max({std::abs(c.red() - color.red()), std::abs(c.green() - color.green()),
                               std::abs(c.blue() - color.blue())}) <= tolerance;
        }
    return count;
}

// A widget drawn as a screen of device pixel ratio 2 would show it.
QImage renderAt2x(QWidget& w)
{
    QPixmap pixmap(w.size() * 2);
    pixmap.setDevicePixelRatio(2);
    pixmap.fill(w.palette().color(QPalette::Window));
    w.render(&pixmap);
    return pixmap.toImage();
}

class OverviewTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(dir.isValid()); }
    void TearDown() override { QApplication::setPalette(QApplication::style()->standardPalette()); }

    // A history ending now: the balances given, one a day.
    void fillHistory(const QVector<double>& balances)
    {
        const qint64 first = now - (balances.size() - 1) * Day;
        for (qsizetype i = 0; i < balances.size(); ++i)
            history.record(first + i * Day, balances[i]);
    }
    AccountOverview::State state(bool online, bool known) const
    {
        return {online, known, true, 1234.5, QDateTime::fromSecsSinceEpoch(now), 1048576.0, &reports, &history};
    }
    static QLabel* label(const AccountOverview& w, const char* name) { return w.findChild<QLabel*>(name); }

    QTemporaryDir dir;
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    BalanceHistory history{dir.filePath("balance_history")};
    MiniClient::ServiceList reports;
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
    const int fourRows = chart.sizeHint().height();
    chart.setReport(S{"Home", {}, {}, {{7, "Mail", 3000}}}, 0); // no divisor: the sizes as they came
    EXPECT_EQ(rowsText(chart), "7 Mail 3000/0/0");
    EXPECT_LT(chart.sizeHint().height(), fourRows);
    chart.setReport(S{"Empty", {}, {}, {}}, MiB);
    EXPECT_TRUE(chart.rows().isEmpty());
}

// Odd histories (beyond double's precision or the calendar, an empty range) still draw the line.
TEST(BalanceChartTest, AnyHistoryIsDrawn)
{
    const QVector<QVector<BalanceHistory::Sample>> histories = {
        {{1700000000, 5}}, {{1700000000, 5}, {1700000060, 5}}, {{1700000000, 1e17}, {1700086400, 1e17 + 16}},
        {{1700000000, 100.001}, {1700086400, 100.002}}, {{0, 1}, {4000000000000, 2}},
        {{-4000000000000, 1}, {1700000000, -1}}};
    BalanceChart chart;
    chart.resize(300, 200);
    for (const auto& samples : histories) {
        chart.setSamples(samples, samples.constLast().time + 3600);
        EXPECT_GT(pixelsNear(renderAt2x(chart), chart.palette().color(QPalette::Highlight)), 20)
            << samples.constLast().balance;
    }
}

TEST_F(OverviewTest, TheTextsTellOnlineOfflineAndNeverKnownApart)
{
    AccountOverview w;
    const QString updated = "Updated " + QLocale().toString(QDateTime::fromSecsSinceEpoch(now), QLocale::ShortFormat);
    w.setState(state(true, true));
    EXPECT_EQ(w.balanceText(), "1,234.50");
    EXPECT_TRUE(w.statusText().startsWith("Internet: on") && w.statusText().endsWith(updated))
        << w.statusText().toStdString();
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

    // The balance in the user's own notation.
    QLocale::setDefault(QLocale(QLocale::German, QLocale::Germany));
    w.setState(state(true, true));
    QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedStates));
    EXPECT_EQ(w.balanceText(), "1.234,50");
    EXPECT_FALSE(w.findChild<QWidget*>("scroll")->isHidden());
}

TEST_F(OverviewTest, EachServiceHasItsChartAndNoReportSaysSo)
{
    AccountOverview w;
    reports = {S{"Home", {}, {{1, "World", 100}}, {{1, "World", 50}}}, S{"Office", {}, {}, {}},
               S{"Dacha", {}, {}, {{9, "Local", 7}}}};
    w.setState(state(true, true));
    ASSERT_EQ(w.trafficCharts().size(), 3);
    EXPECT_EQ(rowsText(*w.trafficCharts()[2]), QString("9 Local %1/0/0").arg(7 / MiB));
    EXPECT_TRUE(label(w, "noTraffic")->isHidden());
    QStringList names;
    for (QLabel* l : w.findChildren<QLabel*>("serviceName"))
        names << l->text();
    EXPECT_EQ(names, QStringList({"Home", "Office", "Dacha"}));

    QPointer<TrafficChart> dropped = w.trafficCharts()[1];
    reports.pop_back(), reports.pop_back();
    w.setState(state(true, true));
    EXPECT_EQ(w.trafficCharts().size(), 1);
    EXPECT_TRUE(dropped.isNull());
    EXPECT_EQ(w.findChildren<QLabel*>("serviceName").size(), 1);

    for (const MiniClient::ServiceList* none : {&reports, static_cast<MiniClient::ServiceList*>(nullptr)}) {
        reports.clear();
        AccountOverview::State s = state(true, true);
        s.reports = none;
        w.setState(s);
        EXPECT_TRUE(w.trafficCharts().isEmpty());
        EXPECT_EQ(label(w, "noTraffic")->isHidden() ? "(hidden)" : label(w, "noTraffic")->text(), "No traffic report yet");
    }
}

TEST_F(OverviewTest, TheBalanceChartAndForecastNeedEnoughHistory)
{
    AccountOverview w;
    AccountOverview::State s = state(true, true);
    s.history = nullptr;
    w.setState(s);
    EXPECT_TRUE(w.balanceChart()->isHidden());
    EXPECT_FALSE(label(w, "noHistory")->isHidden());
    EXPECT_EQ(w.forecastText(), "");

    history.record(now - 200 * Day, 900); // outside the chart's 90 days
    fillHistory({90, 80, 70, 60, 50, 40, 30}); // six days
    w.setState(state(true, true));
    EXPECT_FALSE(w.balanceChart()->isHidden());
    EXPECT_EQ(w.balanceChart()->samples().size(), 7);
    EXPECT_TRUE(label(w, "noHistory")->isHidden());
    EXPECT_EQ(w.forecastText(), "") << "six days of falling balance are too few";
    history.record(now + Day, 20); // seven days: 70 down in 7 days, 20 left
    w.setState(state(true, true));
    EXPECT_EQ(w.forecastText(), "At this rate the balance lasts about 2 days");
}

// The window is the controller's for the whole run: closing it, either way, must not delete it.
TEST_F(OverviewTest, ClosingOnlyHidesTheWindow)
{
    QPointer<AccountOverview> w = new AccountOverview;
    w->setState(state(true, true));
    for (const bool escape : {false, true}) {
        w->show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(w, 5000));
        if (escape)
            QTest::keyClick(w, Qt::Key_Escape);
        else
            w->close();
        EXPECT_FALSE(w->isVisible()) << "escape " << escape;
        QApplication::processEvents();
        ASSERT_FALSE(w.isNull()) << "escape " << escape;
    }
    delete w;
}

// At a device pixel ratio of 2 in a light and a dark style, texts and lines stand out in the style's colours.
TEST_F(OverviewTest, TheChartsAreLegibleInLightAndDarkStyles)
{
    reports = {S{"Home internet", {{1, "Local", mib(300)}}, {{1, "Local", mib(1000)}, {2, "World", mib(5000)}},
                       {{1, "Local", mib(1180)}, {2, "World", mib(2321.7)}, {3, "Night", mib(800)}}},
               S{"Office", {}, {{5, "World", mib(2000)}}, {{5, "World", mib(150)}}}};
    fillHistory({40, 300, 290, 282, 270, 262, 255, 240, 233, 220, 212, 205, 199, 185, 170});
    const QString shots = qEnvironmentVariable("ZEL5_OVERVIEW_SHOTS");
    for (const auto& [name, palette] : {std::pair{"light", QApplication::style()->standardPalette()},
                                        std::pair{"dark", darkPalette()}}) {
        QApplication::setPalette(palette);
        AccountOverview w;
        w.setState(state(true, true));
        w.resize(520, 760);
        w.show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(&w, 5000));
        const QImage image = renderAt2x(w);
        if (!shots.isEmpty())
            image.save(shots + "/overview-" + name + ".png");
        for (QWidget* chart : {static_cast<QWidget*>(w.trafficCharts().first()), static_cast<QWidget*>(w.balanceChart())}) {
            ASSERT_GT(chart->width(), 100);
            const QImage drawn = renderAt2x(*chart);
            EXPECT_GT(pixelsNear(drawn, palette.color(QPalette::Text)), 100) << name << " " << chart->metaObject()->className();
            EXPECT_GT(pixelsNear(drawn, palette.color(QPalette::Highlight)), 100) << name;
            EXPECT_GT(pixelsNear(drawn, palette.color(QPalette::Base), 8), drawn.width() * drawn.height() / 3) << name;
        }
        EXPECT_GT(pixelsNear(image, palette.color(QPalette::WindowText)), 200) << name;
    }
}
