// The settings file, the message store's file, the autostart entry and the
// balance history, each test in a throw-away home.
#include "autostartentry.h"
#include "balancehistory.h"
#include "config.h"
#include "filefinderqt.h"
#include "messagecollector.h"

#include <QDir>
#include <QTemporaryDir>
#include <QtEndian>

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <poll.h>
#include <random>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>

namespace {

QByteArray field(const QByteArray& s)
{
    const quint32 n = qToLittleEndian(quint32(s.size()));
    return QByteArray(reinterpret_cast<const char*>(&n), 4) + s;
}
// One message as the store's file keeps it: subject, text, date.
QByteArray record(const QByteArray& subject, const QByteArray& text = "text") { return field(subject) + field(text) + field("01.02.2007 10:00:00"); }

QByteArray readFile(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray("(missing)");
}

void writeFile(const QString& path, const QByteArray& data)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly) && f.write(data) == data.size());
}

int mode(const QString& path)
{
    struct stat st {};
    return ::stat(QFile::encodeName(path).constData(), &st) == 0 ? int(st.st_mode & 0777) : -1;
}

class StorageTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dir.isValid());
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(dir.filePath("config")));
        qputenv("XDG_DATA_HOME", QFile::encodeName(dir.filePath("data")));
    }
    static void add(MessageCollector& store, std::string subject)
    {
        std::string text = "text", date = "01.02.2007 10:00:00";
        store.insertMessage(subject, text, date);
    }
    static std::string shown(MessageCollector& store)
    {
        std::string subject, text, date;
        return store.currentMessage(subject, text, date) ? subject + "|" + text : "-";
    }

    QTemporaryDir dir;
    const QString config = dir.filePath("config/zel5_trayrc"), messages = dir.filePath("data/zel5_tray/messages");
    FileFinderQT finder;
};

TEST_F(StorageTest, ConfigRoundTripsSavesOnlyTheMessageTimeWhenAskedAndLoadsUntilTheFirstBadValue)
{
    Config<QString> out, in;
    out.address = "10.0.0.1", out.webServerAddress = "stats.example.net, 2nd floor", out.port = 4000;
    out.login = QString::fromUtf8("иван_petrov"), out.password = QString::fromUtf8("пароль € \"x\" ;#=");
    out.lastMessageCheck = 1234567890, out.switchInternetOnExit = true, out.refreshRate = 600;
    ASSERT_TRUE(out._save(true)); // the configuration folder does not exist yet
    EXPECT_EQ(mode(config), 0600);
    ASSERT_TRUE(in._load());
    EXPECT_EQ(QStringList({in.address, in.webServerAddress, in.login, in.password}),
              QStringList({out.address, out.webServerAddress, out.login, out.password}));
    EXPECT_TRUE(in.port == 4000 && in.lastMessageCheck == 1234567890 && in.refreshRate == 600
                && !in.switchInternetOnStart && in.switchInternetOnExit && !in.startOnLogin);
    // Only the message time: the rest of the file stays as it was, and private.
    const QByteArray text = readFile(config);
    ASSERT_EQ(::chmod(QFile::encodeName(config).constData(), 0644), 0);
    in.address = "other.example.net", in.port = 1, in.lastMessageCheck = 2000;
    ASSERT_TRUE(in._save(false));
    EXPECT_EQ(mode(config), 0600);
    EXPECT_EQ(readFile(config), QByteArray(text).replace("=1234567890", "=2000"));

    // A complete file with one piece replaced: loaded or not; address, web address, password, port,
    // refresh, message time. 8c9a9c8d9a8b is the stored form of "secret".
    const QByteArray good = "[network]\naddress=b.net\nlogin=ivan\npassword=8c9a9c8d9a8b\nport=11759\n"
                            "web_server_address=w.net:8443\n[other]\nrefresh_rate=300\nswitch_internet_on_start=1\n"
                            "switch_internet_on_exit=0\nstart_on_login=1\n[messages]\nlast_message_check=1000\n";
    const char* cases[][3] = {
        {"\n", "\n", "ok b.net|w.net:8443|secret|11759|300|1000"},
        {"refresh_rate=300", "refresh_rate=30", "ok b.net|w.net:8443|secret|11759|120|1000"},
        {"refresh_rate=300", "refresh_rate=5000", "ok b.net|w.net:8443|secret|11759|1000|1000"},
        {"w.net:8443", "", "ok b.net|b.net|secret|11759|300|1000"},
        {"password=8c9a9c8d9a8b", "password=bebeb", "ok b.net|w.net:8443|(none)|11759|300|1000"},
        {"[other]", "[x]", "no |||11758|120|0"},
        {"login=ivan\n", "", "no b.net|||11758|120|0"},
        {"port=11759", "port=http", "no b.net||secret|11758|120|0"},
        {"start_on_login=1", "start_on_login=true", "no b.net|w.net:8443|secret|11759|300|0"}};
    for (const auto& [from, to, expected] : cases) {
        writeFile(config, QByteArray(good).replace(from, to));
        Config<QString> cfg;
        const QString result = cfg._load() ? "ok" : "no";
        EXPECT_EQ(QString("%1 %2|%3|%4|%5|%6|%7").arg(result, cfg.address, cfg.webServerAddress, cfg.password)
                      .arg(cfg.port).arg(cfg.refreshRate).arg(cfg.lastMessageCheck), expected) << from << " -> " << to;
    }
}

TEST_F(StorageTest, MessageFileHoldsLengthPrefixedRecordsAndIsNeverLeftHalfWritten)
{
    // First use: the finder makes an empty file, private to the subscriber.
    EXPECT_EQ(QString::fromStdString(finder.findFile(FileFinder::MessagesFile)), messages);
    EXPECT_TRUE(readFile(messages).isEmpty() && mode(messages) == 0600);

    writeFile(messages, record(QByteArray("ab\0cd", 5)));
    {
        MessageCollector store(&finder);
        EXPECT_EQ(shown(store), "ab|text"); // cut at the zero byte
        add(store, std::string(300, 'x')), add(store, "ab"); // no duplicate detection
    } // destruction saves
    EXPECT_EQ(readFile(messages), record("ab") + record(QByteArray(300, 'x')) + record("ab"));
    EXPECT_EQ(MessageCollector(&finder).currentIndex(), 2u);

    // Damaged files, a huge length among them: the whole records are kept and written back without the damage.
    const QByteArray two = record("s1") + record("s2");
    const std::pair<QByteArray, int> files[] = {
        {two + "xyz", 2}, {record("s1") + "\xff\xff\xff\xff" "rest", 1},
        {record("s1") + field("s2") + "\x10\x00\x00\x00" "short", 1}, {QByteArray("\x01\x00\x00", 3), 0}};
    for (const auto& [data, kept] : files) {
        writeFile(messages, data);
        MessageCollector store(&finder);
        EXPECT_EQ(store.count(), std::size_t(kept));
        EXPECT_FALSE(store.synchronize(false));
        ASSERT_TRUE(store.synchronize(true));
        EXPECT_EQ(readFile(messages), two.left(kept * record("s1").size()));
    }

    // A full disk: the file size limit stops the new copy half-way, and the old file stays whole.
    writeFile(messages, record("old"));
    MessageCollector store(&finder);
    add(store, std::string(64 * 1024, 'n'));
    const auto previous = std::signal(SIGXFSZ, SIG_IGN);
    rlimit saved {};
    getrlimit(RLIMIT_FSIZE, &saved);
    const rlimit tight{1024, saved.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &tight), 0);
    const bool written = store.synchronize(true);
    setrlimit(RLIMIT_FSIZE, &saved), std::signal(SIGXFSZ, previous);
    EXPECT_FALSE(written);
    EXPECT_EQ(readFile(messages), record("old"));
    EXPECT_EQ(QDir(dir.filePath("data/zel5_tray")).entryList(QDir::Files), QStringList{"messages"}); // no copy left
}

// Before every save the store reads the file again: another program may have changed it.
TEST_F(StorageTest, ReadingAgainTakesWhateverTheFileNowHoldsAndKeepsTheListWhenItIsGone)
{
    const QByteArray longer(100, 'L');
    writeFile(messages, record(longer, longer) + record("two", "t") + record(longer, "three"));
    MessageCollector store(&finder);
    ASSERT_EQ(store.count(), 3u);
    // Fewer and shorter messages over longer ones.
    writeFile(messages, record("a", "x") + record("b", QByteArray(300, 'y')));
    EXPECT_TRUE(store.synchronize(false));
    ASSERT_EQ(store.count(), 2u);
    EXPECT_EQ(shown(store), "b|" + std::string(300, 'y'));
    store.prevMessage();
    EXPECT_EQ(shown(store), "a|x");
    // A file that cannot be read leaves the list as it was; an empty one empties it.
    ASSERT_TRUE(QFile::remove(messages));
    EXPECT_FALSE(store.synchronize(false));
    EXPECT_EQ(store.count(), 2u);
    writeFile(messages, QByteArray());
    EXPECT_TRUE(store.synchronize(false));
    EXPECT_TRUE(store.empty());
}

QByteArray execLine(const QString& path)
{
    for (const QByteArray& line : readFile(path).split('\n'))
        if (line.startsWith("Exec="))
            return line.mid(5);
    return "(none)";
}

class AutostartTest : public StorageTest {
protected:
    void SetUp() override
    {
        StorageTest::SetUp();
        ASSERT_EQ(AutostartEntry::path(), entry);
    }

    const QString entry = dir.filePath("config/autostart/zel5_tray.desktop");
    const QString program = QStringLiteral("/usr/bin/zel5_tray");
};

TEST_F(AutostartTest, EnabledWritesTheEntryAndDisabledRemovesIt)
{
    ASSERT_TRUE(AutostartEntry::apply(false, program)); // nothing there: nothing to do
    EXPECT_FALSE(QFileInfo::exists(dir.filePath("config/autostart")));
    ASSERT_TRUE(AutostartEntry::apply(true, program)); // the folder does not exist yet
    EXPECT_EQ(readFile(entry), "[Desktop Entry]\nType=Application\nName=Orvane ZEL5 Tray\n"
                           "Comment=Shows the state of your internet account in the system tray\n"
                           "Exec=/usr/bin/zel5_tray\nIcon=zel5_tray\nTerminal=false\nCategories=Network;Qt;\n"
                           "X-GNOME-Autostart-enabled=true\n");
    EXPECT_EQ(QDir(dir.filePath("config/autostart")).entryList(QDir::Files), QStringList{"zel5_tray.desktop"});
    ASSERT_TRUE(AutostartEntry::apply(false, program));
    EXPECT_FALSE(QFileInfo::exists(entry));
}

TEST_F(AutostartTest, AtStartAStaleEntryOrALinkInItsPlaceIsReplaced)
{
    // An entry left by an install elsewhere starts the wrong program.
    writeFile(entry, "[Desktop Entry]\nType=Application\nName=Orvane ZEL5 Tray\nExec=/opt/old/zel5_tray\n");
    ASSERT_TRUE(AutostartEntry::apply(true, program));
    EXPECT_EQ(execLine(entry), "/usr/bin/zel5_tray");
    // A link in its place, say to the system-wide entry, is replaced; its target stays as it was.
    const QString system = dir.filePath("zel5_tray.desktop");
    writeFile(system, "[Desktop Entry]\nExec=zel5_tray\n");
    ASSERT_TRUE(QFile::remove(entry) && QFile::link(system, entry));
    ASSERT_TRUE(AutostartEntry::apply(true, program));
    EXPECT_FALSE(QFileInfo(entry).isSymLink());
    EXPECT_EQ(execLine(entry), "/usr/bin/zel5_tray");
    EXPECT_EQ(readFile(system), "[Desktop Entry]\nExec=zel5_tray\n");
}

TEST_F(AutostartTest, BadProgramPathsAndUnwritablePlacesFailWithoutLosingTheEntry)
{
    ASSERT_TRUE(AutostartEntry::apply(true, program));
    const QByteArray good = readFile(entry);
    for (const QString& bad : {QStringLiteral("bin/zel5_tray"), QStringLiteral("/opt/a\nb/zel5_tray")}) {
        EXPECT_FALSE(AutostartEntry::apply(true, bad)) << qPrintable(bad);
        EXPECT_EQ(readFile(entry), good) << qPrintable(bad);
    }
    ASSERT_TRUE(QFile::remove(entry) && QDir().mkpath(entry + "/x")); // its name taken by a folder
    EXPECT_FALSE(AutostartEntry::apply(true, program));
    EXPECT_FALSE(AutostartEntry::apply(false, program));
}

// A launcher takes the Exec value's string escapes first, then the quoting of the argument.
TEST_F(AutostartTest, ExecQuotesAndEscapesAPathSoThatTheLauncherGetsItWhole)
{
    const std::pair<QString, QString> paths[] = {
        {QString::fromUtf8("/opt/программы/zel5_tray"), QString::fromUtf8("/opt/программы/zel5_tray")},
        {"/opt/a=b/50%/zel5_tray", "/opt/a=b/50%%/zel5_tray"},
        {R"(/home/it's (new)/`id` $HOME \ "x" 50%/zel5_tray)",
         R"("/home/it's (new)/\\`id\\` \\$HOME \\\\ \\"x\\" 50%%/zel5_tray")"}};
    for (const auto& [path, exec] : paths) {
        ASSERT_TRUE(AutostartEntry::apply(true, path)) << qPrintable(path);
        EXPECT_EQ(QString::fromUtf8(execLine(entry)), exec) << qPrintable(path);
    }
    for (const QChar c : QStringLiteral(" \"'\\><~|&;$*?#()`")) // each one alone makes the quotes
        EXPECT_TRUE(AutostartEntry::execValue(QStringLiteral("/opt/a%1b").arg(c)).startsWith(u'"')) << int(c.unicode());
}

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

class BalanceHistoryTest : public StorageTest {
protected:
    const QString path = dir.filePath("data/zel5_tray/balance_history");
};

TEST_F(BalanceHistoryTest, EachChangeIsRecordedOnceAndSurvivesAReload)
{
    BalanceHistory history(path);
    ASSERT_TRUE(history.load()); // no file yet: an empty history
    EXPECT_TRUE(history.record(1000, 10.5)); // the folder does not exist yet
    for (const auto& [time, balance, taken] : {std::tuple{1300, 10.5, false}, {1900, 0.1 + 0.2, true}, {2200, -7.0, true},
                                               {2500, 10.5, true}, {3000, qQNaN(), false}}) // only the newest is "the same"
        EXPECT_EQ(history.record(time, balance), taken) << time;
    EXPECT_EQ(readFile(path), "1000 10.5\n1900 0.30000000000000004\n2200 -7\n2500 10.5\n");
    EXPECT_EQ(QDir(QFileInfo(path).absolutePath()).entryList(QDir::Files | QDir::Hidden),
              QStringList{"balance_history"}) << "temporary file left";
    EXPECT_EQ(mode(path), 0600);

    BalanceHistory reloaded(path);
    ASSERT_TRUE(reloaded.load());
    EXPECT_EQ(text(reloaded.samples()), text(history.samples())); // 17 digits: exact
    EXPECT_FALSE(reloaded.record(2800, 10.5)) << "a reload remembers the newest balance";
    EXPECT_EQ(text(reloaded.since(1900)), "1900:0.30000000000000004 2200:-7 2500:10.5");

    // A clock that went back drops the samples from its future, on disk too, even when nothing is added.
    EXPECT_TRUE(reloaded.record(2000, 4));
    reloaded.record(7000, 5);
    EXPECT_FALSE(reloaded.record(2100, 4));
    EXPECT_EQ(readFile(path), "1000 10.5\n1900 0.30000000000000004\n2000 4\n");
}

TEST_F(BalanceHistoryTest, DamagedLinesAreSkippedAndTheRestSorted)
{
    writeFile(path, "300 1\ngarbage\n100 2\n200\n200 x\n250 nan\n260 inf\n150 1e400\n\n400 -3.5 extra\n"
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
    EXPECT_EQ(history.samples().size(), 2);
    // Over the cap in the file: the newest are kept, and a record keeps the count at the cap.
    writeFile(path, lines(BalanceHistory::MaxSamples + 100));
    ASSERT_TRUE(history.load());
    ASSERT_EQ(history.samples().size(), BalanceHistory::MaxSamples);
    EXPECT_EQ(history.samples().first().time, Now + 100);
    EXPECT_TRUE(history.record(Now + BalanceHistory::MaxSamples + 100, 7));
    EXPECT_EQ(history.samples().first().time, Now + 101);
    EXPECT_EQ(readFile(path).count('\n'), BalanceHistory::MaxSamples);
}

// A writer killed at random moments: the file is always a whole history.
TEST_F(BalanceHistoryTest, AKilledWriterLeavesTheOldOrTheNewFileWhole)
{
    writeFile(path, lines(BalanceHistory::MaxSamples));
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
        if (saving) // the kill moment, somewhere in the saves that follow the first
            ::usleep(std::uniform_int_distribution<useconds_t>(0, 20000)(random));
        ::kill(pid, SIGKILL);
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(saving) << "the writer's first save within 10 s";

        const QByteArray data = readFile(path);
        BalanceHistory history(path);
        ASSERT_TRUE(history.load());
        ASSERT_TRUE(data.endsWith('\n') && data.count('\n') == BalanceHistory::MaxSamples
                    && history.samples().size() == BalanceHistory::MaxSamples)
            << "round " << round << ": " << data.count('\n') << " lines";
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
        {"in debt", {65, 55, 45, 35, 25, 15, 5, -5}, std::nullopt},
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
}

} // namespace
