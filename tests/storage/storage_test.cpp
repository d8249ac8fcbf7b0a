// The settings file and the message store's file, in a throw-away home each.
#include "config.h"
#include "filefinderqt.h"
#include "messagecollector.h"

#include <QDir>
#include <QTemporaryDir>
#include <QtEndian>

#include <gtest/gtest.h>

#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>

namespace {

// A complete settings file; 8c9a9c8d9a8b is the stored form of the password "secret".
const QByteArray goodConfig = "[network]\naddress=b.net\nlogin=ivan\npassword=8c9a9c8d9a8b\nport=11759\n"
                              "web_server_address=w.net:8443\n[other]\nrefresh_rate=300\n"
                              "switch_internet_on_start=1\nswitch_internet_on_exit=0\nstart_on_login=1\n"
                              "[messages]\nlast_message_check=1000\n";

QByteArray field(const QByteArray& s)
{
    const quint32 n = qToLittleEndian(quint32(s.size()));
    return QByteArray(reinterpret_cast<const char*>(&n), 4) + s;
}

// One message as the store's file keeps it: subject, text, date.
QByteArray record(const QByteArray& subject, const QByteArray& text = "text", const QByteArray& date = "01.02.2007 10:00:00")
{
    return field(subject) + field(text) + field(date);
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
    static QByteArray read(const QString& path)
    {
        QFile f(path);
        return f.open(QIODevice::ReadOnly) ? f.readAll() : "(missing)";
    }
    static void write(const QString& path, const QByteArray& data)
    {
        QDir().mkpath(QFileInfo(path).absolutePath());
        QFile f(path);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly) && f.write(data) == data.size());
    }
    static void add(MessageCollector& store, std::string subject, std::string text = "text")
    {
        std::string date = "01.02.2007 10:00:00";
        store.insertMessage(subject, text, date);
    }
    static std::string shown(MessageCollector& store)
    {
        std::string subject, text, date;
        return store.currentMessage(subject, text, date) ? subject : "-";
    }
    // Every message, first to last, as "subject|text" lines; the cursor ends on the last.
    static std::string listed(MessageCollector& store)
    {
        for (std::size_t i = 0; i < store.count(); ++i)
            store.prevMessage();
        std::string out, subject, text, date;
        for (std::size_t i = 0; i < store.count(); ++i, store.nextMessage()) {
            store.currentMessage(subject, text, date);
            out += subject + "|" + text + "\n";
        }
        return out;
    }

    QTemporaryDir dir;
    const QString config = dir.filePath("config/zel5_trayrc"), messages = dir.filePath("data/zel5_tray/messages");
    FileFinderQT finder;
};

} // namespace

TEST_F(StorageTest, ConfigLoadTakesTheValuesInTurnUntilTheFirstMissingOrInvalidOne)
{
    // The good file with one piece of its text replaced; then loaded or not, and the address, web address,
    // password, port, refresh rate and message time read.
    const char* cases[][3] = {
        {"\n", "\n", "ok b.net|w.net:8443|secret|11759|300|1000"},
        {"refresh_rate=300", "refresh_rate=30", "ok b.net|w.net:8443|secret|11759|120|1000"},
        {"refresh_rate=300", "refresh_rate=5000", "ok b.net|w.net:8443|secret|11759|1000|1000"},
        {"port=11759", "port=70000", "ok b.net|w.net:8443|secret|70000|300|1000"},
        {"w.net:8443", "", "ok b.net|b.net|secret|11759|300|1000"},
        {"password=8c9a9c8d9a8b", "password=bebeb", "ok b.net|w.net:8443|(none)|11759|300|1000"},
        {"[other]", "[x]", "no |||11758|120|0"}, {"[messages]", "[x]", "no |||11758|120|0"},
        {"address=b.net", "address=", "no |||11758|120|0"},
        {"login=ivan\n", "", "no b.net|||11758|120|0"},
        {"password=8c9a9c8d9a8b", "password=", "no b.net|||11758|120|0"},
        {"port=11759", "port=http", "no b.net||secret|11758|120|0"},
        {"refresh_rate=300", "refresh_rate=often", "no b.net|w.net:8443|secret|11759|120|0"},
        {"switch_internet_on_exit=0\n", "", "no b.net|w.net:8443|secret|11759|300|0"},
        {"start_on_login=1", "start_on_login=true", "no b.net|w.net:8443|secret|11759|300|0"}};
    for (const auto& [from, to, expected] : cases) {
        write(config, QByteArray(goodConfig).replace(from, to));
        Config<QString> cfg;
        const QString result = cfg._load() ? "ok" : "no";
        EXPECT_EQ(QString("%1 %2|%3|%4|%5|%6|%7").arg(result, cfg.address, cfg.webServerAddress, cfg.password)
                      .arg(cfg.port).arg(cfg.refreshRate).arg(cfg.lastMessageCheck), expected) << from << " -> " << to;
    }
}

TEST_F(StorageTest, ConfigRoundTripsAndSavingOnlyTheMessageTimeKeepsTheRest)
{
    Config<QString> out;
    out.address = "10.0.0.1", out.webServerAddress = "stats.example.net, 2nd floor", out.port = 4000;
    out.login = QString::fromUtf8("иван_petrov"), out.password = QString::fromUtf8("пароль € \"x\" ;#=");
    out.lastMessageCheck = 1234567890, out.switchInternetOnExit = true, out.refreshRate = 600;
    ASSERT_TRUE(out._save(true)); // the configuration folder does not exist yet
    EXPECT_EQ(mode(config), 0600);
    Config<QString> in;
    ASSERT_TRUE(in._load());
    EXPECT_EQ(QStringList({in.address, in.webServerAddress, in.login, in.password}),
              QStringList({out.address, out.webServerAddress, out.login, out.password}));
    EXPECT_TRUE(in.port == 4000 && in.lastMessageCheck == 1234567890 && in.refreshRate == 600
                && !in.switchInternetOnStart && in.switchInternetOnExit && !in.startOnLogin);

    // Only the message time: the rest of the file stays as it was, and private.
    const QByteArray text = read(config);
    ASSERT_EQ(::chmod(QFile::encodeName(config).constData(), 0644), 0);
    in.address = "other.example.net", in.port = 1, in.lastMessageCheck = 2000;
    ASSERT_TRUE(in._save(false));
    EXPECT_EQ(mode(config), 0600);
    EXPECT_EQ(read(config), QByteArray(text).replace("=1234567890", "=2000"));
}

TEST_F(StorageTest, MessageFileHoldsLengthPrefixedRecordsAndIsNeverLeftHalfWritten)
{
    // First use: the finder makes an empty file, private to the subscriber.
    EXPECT_EQ(QString::fromStdString(finder.findFile(FileFinder::MessagesFile)), messages);
    EXPECT_TRUE(read(messages).isEmpty() && mode(messages) == 0600);

    write(messages, record(QByteArray("ab\0cd", 5)));
    {
        MessageCollector store(&finder);
        EXPECT_EQ(shown(store), "ab"); // cut at the zero byte
        add(store, std::string(300, 'x')), add(store, "ab"); // no duplicate detection
    } // destruction saves
    EXPECT_EQ(read(messages), record("ab") + record(QByteArray(300, 'x')) + record("ab"));
    EXPECT_EQ(MessageCollector(&finder).currentIndex(), 2u);

    // Damaged files: the whole records are kept and written back without the damage.
    const QByteArray two = record("s1") + record("s2");
    const std::pair<QByteArray, int> files[] = {
        {two + "xyz", 2}, {record("s1") + "\xff\xff\xff\xff" "rest", 1},
        {record("s1") + field("s2") + "\x10\x00\x00\x00" "short", 1}, {QByteArray("\x01\x00\x00", 3), 0}};
    for (const auto& [data, kept] : files) {
        write(messages, data);
        MessageCollector store(&finder);
        EXPECT_EQ(store.count(), std::size_t(kept));
        EXPECT_FALSE(store.synchronize(false));
        ASSERT_TRUE(store.synchronize(true));
        EXPECT_EQ(read(messages), two.left(kept * record("s1").size()));
    }

    // A full disk: the file size limit stops the new copy half-way, and the old file stays whole.
    write(messages, record("old"));
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
    EXPECT_EQ(read(messages), record("old"));
    EXPECT_EQ(QDir(dir.filePath("data/zel5_tray")).entryList(QDir::Files), QStringList{"messages"}); // no copy left
}

// Before every save the store reads the file again: another program may have changed it.
TEST_F(StorageTest, ReadingAgainTakesWhateverTheFileNowHoldsAndKeepsTheListWhenItIsGone)
{
    const QByteArray longer(100, 'L');
    write(messages, record(longer, longer) + record("two", "t") + record(longer, "three"));
    MessageCollector store(&finder);
    ASSERT_EQ(store.count(), 3u);
    // Fewer and shorter messages over longer ones, one cut at its zero byte.
    write(messages, record(QByteArray("ab\0cd", 5), "x") + record("b", QByteArray(300, 'y')));
    EXPECT_TRUE(store.synchronize(false));
    EXPECT_EQ(listed(store), "ab|x\nb|" + std::string(300, 'y') + "\n");
    // More than the list holds.
    write(messages, record("1") + record("2") + record("3") + record("4"));
    EXPECT_TRUE(store.synchronize(false));
    EXPECT_EQ(store.count(), 4u);
    EXPECT_EQ(store.currentIndex(), 3u);
    // A file that cannot be read leaves the list as it was; an empty one empties it.
    ASSERT_TRUE(QFile::remove(messages));
    EXPECT_FALSE(store.synchronize(false));
    EXPECT_EQ(store.count(), 4u);
    write(messages, QByteArray());
    EXPECT_TRUE(store.synchronize(false));
    EXPECT_TRUE(store.empty());
}

TEST_F(StorageTest, StoresLargerThanTheWriteBufferRoundTripByteForByte)
{
    // Many buffer-fulls, empty strings, and one text far larger than the buffer that goes out on its own.
    QByteArray expected;
    {
        MessageCollector store(&finder);
        for (int i = 0; i < 1200; ++i) {
            const std::string text = i == 600 ? std::string(700 * 1024, 'h') : i % 7 == 0 ? "" : std::string(620, 'a' + i % 26);
            add(store, "Notice " + std::to_string(i), text);
            expected += record(QByteArray::fromStdString("Notice " + std::to_string(i)), QByteArray::fromStdString(text));
        }
        ASSERT_TRUE(store.synchronize(true));
        EXPECT_EQ(read(messages), expected);
    }
    MessageCollector again(&finder);
    EXPECT_EQ(again.count(), 1200u);
    EXPECT_TRUE(again.synchronize(false));
    ASSERT_TRUE(again.synchronize(true));
    EXPECT_EQ(read(messages), expected);
}

TEST_F(StorageTest, MessageCursorStopsAtBothEndsAndDeletingShowsTheNeighbour)
{
    MessageCollector store(&finder);
    store.nextMessage(), store.prevMessage(), store.deleteMessage(); // harmless when empty
    std::string walk = shown(store);
    add(store, "a"), add(store, "b"), add(store, "c"), add(store, "d");
    for (auto step : {&MessageCollector::nextMessage, &MessageCollector::prevMessage, &MessageCollector::prevMessage,
                      &MessageCollector::prevMessage, &MessageCollector::prevMessage, &MessageCollector::nextMessage})
        (store.*step)(), walk += shown(store);
    // Then delete the middle (its successor shows), the last (the new last), the first, the only one.
    store.deleteMessage(), walk += shown(store);
    store.nextMessage(), store.deleteMessage(), walk += shown(store);
    store.prevMessage(), store.deleteMessage(), walk += shown(store);
    store.deleteMessage(), walk += shown(store);
    EXPECT_EQ(walk, "-dcbaab" "ccc-");
}
