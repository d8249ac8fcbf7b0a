#include "balancehistory.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <poll.h>
#include <random>
#include <tuple>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr qint64 Day = 86400;
constexpr qint64 Now = 1700000000;

// count samples a second apart from Now, of balances 0 and 1 in turn.
QByteArray lines(int count)
{
    QByteArray text;
    for (int i = 0; i < count; ++i)
        text += QByteArray::number(Now + i) + ' ' + QByteArray::number(i % 2) + '\n';
    return text;
}

QString text(const QVector<BalanceHistory::Sample>& samples)
{
    QStringList parts;
    for (const BalanceHistory::Sample& s : samples)
        parts << QStringLiteral("%1:%2").arg(s.time).arg(s.balance, 0, 'g', 17);
    return parts.join(' ');
}

class BalanceHistoryTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(dir.isValid()); }
    QByteArray read() const
    {
        QFile f(path);
        return f.open(QIODevice::ReadOnly) ? f.readAll() : "(missing)";
    }
    void write(const QByteArray& data) const
    {
        QDir().mkpath(QFileInfo(path).absolutePath());
        QFile f(path);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly) && f.write(data) == data.size());
    }

    QTemporaryDir dir;
    const QString path = dir.filePath("data/zel5_tray/balance_history");
};

} // namespace

TEST_F(BalanceHistoryTest, EachChangeIsRecordedOnceAndSurvivesAReload)
{
    BalanceHistory history(path);
    ASSERT_TRUE(history.load()); // no file yet: an empty history
    EXPECT_TRUE(history.samples().isEmpty());
    EXPECT_TRUE(history.record(1000, 10.5)); // the folder does not exist yet
    EXPECT_FALSE(history.record(1300, 10.5));
    EXPECT_TRUE(history.record(1900, 0.1 + 0.2));
    EXPECT_TRUE(history.record(2200, -7));
    EXPECT_TRUE(history.record(2500, 10.5)); // only the newest sample counts as "the same"
    EXPECT_FALSE(history.record(3000, qQNaN()));
    EXPECT_FALSE(history.record(3000, qInf()));
    EXPECT_EQ(read(), "1000 10.5\n1900 0.30000000000000004\n2200 -7\n2500 10.5\n");
    EXPECT_EQ(QDir(QFileInfo(path).absolutePath()).entryList(QDir::Files | QDir::Hidden),
              QStringList{"balance_history"}) << "a save left a temporary file behind";
    struct stat st {};
    ASSERT_EQ(::stat(QFile::encodeName(path).constData(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u) << "the balance is the subscriber's own business";

    BalanceHistory reloaded(path);
    ASSERT_TRUE(reloaded.load());
    EXPECT_EQ(text(reloaded.samples()), text(history.samples()));
    EXPECT_EQ(reloaded.samples()[1].balance, 0.1 + 0.2) << "the balance round-trips exactly";
    EXPECT_FALSE(reloaded.record(2800, 10.5)) << "a reload remembers the newest balance";
    EXPECT_EQ(text(reloaded.since(1900)), "1900:0.30000000000000004 2200:-7 2500:10.5");
    EXPECT_EQ(text(reloaded.since(2501)), "");

    // A clock that went back drops the samples from its future, on disk too, even when nothing is added.
    EXPECT_TRUE(reloaded.record(2000, 4));
    EXPECT_EQ(text(reloaded.samples()), "1000:10.5 1900:0.30000000000000004 2000:4");
    reloaded.record(7000, 5);
    EXPECT_FALSE(reloaded.record(2100, 4));
    EXPECT_EQ(read(), "1000 10.5\n1900 0.30000000000000004\n2000 4\n");
}

TEST_F(BalanceHistoryTest, DamagedLinesAreSkippedAndTheRestSorted)
{
    write("300 1\ngarbage\n100 2\n200\n200 x\n250 nan\n260 inf\n150 1e400\n\n400 -3.5 extra\n"
          "12x 5\n" + QByteArray("\0\xff\x01 7\n", 6) + "500 -2\n600 4");
    BalanceHistory history(path);
    ASSERT_TRUE(history.load());
    EXPECT_EQ(text(history.samples()), "100:2 300:1 500:-2 600:4");
    // A folder where the file should be cannot be read: not an empty history.
    ASSERT_TRUE(QFile::remove(path) && QDir().mkpath(path));
    EXPECT_FALSE(BalanceHistory(path).load());
}

TEST_F(BalanceHistoryTest, OldAndSurplusSamplesAreDropped)
{
    BalanceHistory history(path);
    history.record(0, 1);
    history.record(Day, 2);
    history.record(BalanceHistory::MaxAgeSeconds, 3); // the first is exactly 730 days old: kept
    EXPECT_EQ(history.samples().size(), 3);
    history.record(BalanceHistory::MaxAgeSeconds + Day + 1, 4);
    EXPECT_EQ(text(history.samples()), QString("%1:3 %2:4").arg(BalanceHistory::MaxAgeSeconds)
                                           .arg(BalanceHistory::MaxAgeSeconds + Day + 1));
    // Over the cap in the file: the newest are kept, and a record keeps the count at the cap.
    write(lines(BalanceHistory::MaxSamples + 100));
    ASSERT_TRUE(history.load());
    ASSERT_EQ(history.samples().size(), BalanceHistory::MaxSamples);
    EXPECT_EQ(history.samples().first().time, Now + 100);
    EXPECT_TRUE(history.record(Now + BalanceHistory::MaxSamples + 100, 7));
    EXPECT_EQ(history.samples().size(), BalanceHistory::MaxSamples);
    EXPECT_EQ(history.samples().first().time, Now + 101);
    EXPECT_EQ(read().count('\n'), BalanceHistory::MaxSamples);
}

// A writer killed at random moments: the file is always a whole history.
TEST_F(BalanceHistoryTest, AKilledWriterLeavesTheOldOrTheNewFileWhole)
{
    write(lines(BalanceHistory::MaxSamples));
    std::mt19937 random(12345);
    for (int round = 0; round < 15; ++round) {
        int ready[2];
        ASSERT_EQ(::pipe(ready), 0);
        const pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            // Records until killed, telling once a record saved; gives up after 20 s.
            ::close(ready[0]);
            BalanceHistory history(path);
            history.load();
            const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
            for (qint64 t = history.samples().constLast().time + 1; std::chrono::steady_clock::now() < end; ++t) {
                if (history.record(t, double(t % 3)) && ready[1] >= 0 && ::write(ready[1], "r", 1) == 1)
                    ::close(ready[1]), ready[1] = -1;
            }
            ::_exit(0);
        }
        ::close(ready[1]);
        pollfd started{ready[0], POLLIN, 0};
        const bool saving = ::poll(&started, 1, 10000) == 1;
        ::close(ready[0]);
        if (saving) // somewhere in the saves that follow the first
            ::usleep(std::uniform_int_distribution<useconds_t>(0, 20000)(random));
        ::kill(pid, SIGKILL);
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(saving) << "the writer did not start within 10 s";

        const QByteArray data = read();
        BalanceHistory history(path);
        ASSERT_TRUE(history.load());
        ASSERT_TRUE(data.endsWith('\n') && data.count('\n') == BalanceHistory::MaxSamples
                    && history.samples().size() == BalanceHistory::MaxSamples)
            << "round " << round << ": " << data.count('\n') << " lines, " << history.samples().size() << " samples";
    }
    BalanceHistory after(path);
    ASSERT_TRUE(after.load());
    EXPECT_GT(after.samples().constLast().time, Now + BalanceHistory::MaxSamples) << "the writers saved something";
}

TEST_F(BalanceHistoryTest, AForecastNeedsSevenDaysOfFallingBalanceSinceTheLastPaymentWithinNinetyDays)
{
    // Balances one a day, the last at Now.
    const std::tuple<const char*, QVector<double>, std::optional<int>> cases[] = {
        {"10 a day, 30 left", {100, 90, 80, 70, 60, 50, 40, 30}, 3},
        {"a part day rounds up", {105, 95, 85, 75, 65, 55, 45, 35}, 4},
        {"six days", {90, 80, 70, 60, 50, 40, 30}, std::nullopt},
        {"first and last set the rate", {100, 99, 98, 97, 96, 95, 94, 30}, 3},
        {"run out", {70, 60, 50, 40, 30, 20, 10, 0}, std::nullopt},
        {"in debt", {65, 55, 45, 35, 25, 15, 5, -5}, std::nullopt},
        {"one sample", {50}, std::nullopt},
        {"paid three days ago", {100, 90, 80, 70, 60, 50, 40, 30, 20, 200, 190, 180, 170}, std::nullopt},
        {"a payment, then 210 to 120 in 9 days", {100, 90, 80, 210, 200, 190, 180, 170, 160, 150, 140, 130, 120}, 12},
        {"only rising", {10, 20, 30, 40, 50, 60, 70, 80}, std::nullopt},
    };
    for (const auto& [name, balances, days] : cases) {
        BalanceHistory history(path);
        for (qsizetype i = 0; i < balances.size(); ++i)
            history.record(Now - (balances.size() - 1 - i) * Day, balances[i]);
        EXPECT_EQ(history.daysLeft(Now), days) << name;
    }

    BalanceHistory history(path);
    history.record(Now - 100 * Day, 500);
    history.record(Now - 5 * Day, 400);
    history.record(Now, 300);
    EXPECT_EQ(history.daysLeft(Now), std::nullopt) << "the fall within 90 days spans 5 days";
    history.record(Now + 3 * Day, 280); // 120 over 8 days: 15 a day
    EXPECT_EQ(history.daysLeft(Now + 3 * Day), 19);
    EXPECT_EQ(history.daysLeft(Now + 92 * Day), std::nullopt) << "only the last sample left in the window";
}
