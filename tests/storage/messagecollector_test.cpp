#include "filefinderqt.h"
#include "messagecollector.h"
#include "scratchhome.h"

#include <csignal>
#include <sstream>
#include <sys/resource.h>

namespace {

struct FixedFinder : FileFinder {
    explicit FixedFinder(const QString& p) : path(QFile::encodeName(p).toStdString()) {}
    std::string findFile(fileType) override { return path; }
    std::string path;
};

QByteArray field(const QByteArray& s)
{
    const quint32 n = quint32(s.size());
    const char prefix[4] = {char(n), char(n >> 8), char(n >> 16), char(n >> 24)};
    return QByteArray(prefix, 4) + s;
}

// One record as the file keeps it: subject, text, date.
QByteArray record(const QByteArray& s)
{
    return field(s) + field("<p>" + s + "</p>") + field("01.02.2007 10:00:00");
}

void add(MessageCollector& store, std::string subject)
{
    std::string text = "<p>" + subject + "</p>", date = "01.02.2007 10:00:00";
    store.insertMessage(subject, text, date);
}

std::string shown(MessageCollector& store)
{
    std::string subject, text, date;
    return store.currentMessage(subject, text, date) ? subject : "-";
}

class MessageCollectorTest : public ScratchHome {
protected:
    QString file() const { return dir.filePath("messages"); }
    FixedFinder finder{dir.filePath("messages")};
};

} // namespace

TEST_F(MessageCollectorTest, RecordsAreLengthPrefixedLittleEndianInSubjectTextDateOrder)
{
    std::ostringstream out;
    ASSERT_TRUE(MessageCollector::writeString(out, "abc"));
    EXPECT_EQ(out.str(), std::string("\x03\x00\x00\x00" "abc", 7));
    std::istringstream withZero(std::string("\x05\x00\x00\x00" "ab\0cd", 9));
    std::string s;
    ASSERT_TRUE(MessageCollector::readString(withZero, s));
    EXPECT_EQ(s, "ab"); // cut at the zero byte

    {
        MessageCollector store(&finder);
        add(store, "Тема");
        add(store, std::string(300, 'x'));
        add(store, "Тема"); // no duplicate detection
    } // destruction saves
    EXPECT_EQ(read(file()), record("Тема") + record(QByteArray(300, 'x')) + record("Тема"));
    MessageCollector store(&finder);
    EXPECT_EQ(store.count(), 3u);
    EXPECT_EQ(store.currentIndex(), 2u);
}

TEST_F(MessageCollectorTest, DamagedTailsLoseOnlyTheDamagedRecord)
{
    const QByteArray two = record("s1") + record("s2");
    const std::pair<QByteArray, int> files[] = {
        {two + "xyz", 2}, {record("s1") + "\xff\xff\xff\xff" "rest", 1},
        {record("s1") + field("s2") + "\x10\x00\x00\x00" "short", 1}, {QByteArray("\x01\x00\x00", 3), 0}};
    for (const auto& [data, kept] : files) {
        write(file(), data);
        MessageCollector store(&finder);
        EXPECT_EQ(store.count(), std::size_t(kept));
        EXPECT_FALSE(store.synchronize(false));
        ASSERT_TRUE(store.synchronize(true));
        EXPECT_EQ(read(file()), two.left(kept * record("s1").size()));
    }
}

TEST_F(MessageCollectorTest, CursorStopsAtBothEndsAndDeletingShowsTheNeighbour)
{
    MessageCollector store(&finder);
    store.nextMessage(), store.prevMessage(), store.deleteMessage(); // harmless when empty
    EXPECT_EQ(shown(store), "-");
    for (const char* s : {"a", "b", "c", "d"})
        add(store, s);
    std::string walk;
    for (auto step : {&MessageCollector::nextMessage, &MessageCollector::prevMessage, &MessageCollector::prevMessage,
                      &MessageCollector::prevMessage, &MessageCollector::prevMessage, &MessageCollector::nextMessage})
        (store.*step)(), walk += shown(store);
    EXPECT_EQ(walk, "dcbaab");
    store.deleteMessage(); // the middle: its successor
    EXPECT_EQ(shown(store), "c");
    store.nextMessage(), store.deleteMessage(); // the last: the new last
    EXPECT_EQ(shown(store), "c");
    store.prevMessage(), store.deleteMessage(); // the first: its successor
    EXPECT_EQ(shown(store), "c");
    store.deleteMessage();
    EXPECT_TRUE(store.empty());
    EXPECT_EQ(shown(store), "-");
}

TEST_F(MessageCollectorTest, AFailedSaveLeavesTheOldFileWhole)
{
    write(file(), record("old"));
    MessageCollector store(&finder);
    add(store, std::string(64 * 1024, 'n'));

    // A full disk: the file size limit stops the new copy half-way.
    struct sigaction ignore {}, previous {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGXFSZ, &ignore, &previous);
    rlimit saved {};
    getrlimit(RLIMIT_FSIZE, &saved);
    rlimit tight = saved;
    tight.rlim_cur = 1024;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &tight), 0);
    const bool written = store.synchronize(true);
    setrlimit(RLIMIT_FSIZE, &saved);
    sigaction(SIGXFSZ, &previous, nullptr);
    EXPECT_FALSE(written);
    EXPECT_EQ(read(file()), record("old"));
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files), QStringList{"messages"}); // no copy left behind

    if (::geteuid() != 0) { // permissions do not bind root
        ::chmod(QFile::encodeName(dir.path()).constData(), 0500);
        EXPECT_FALSE(store.synchronize(true));
        ::chmod(QFile::encodeName(dir.path()).constData(), 0700);
        EXPECT_EQ(read(file()), record("old"));
    }
    ASSERT_TRUE(store.synchronize(true));
    EXPECT_EQ(MessageCollector(&finder).count(), 2u);
}

TEST_F(MessageCollectorTest, TheFileFinderCreatesAnEmptyPrivateStoreOnFirstUse)
{
    FileFinderQT qt;
    const QString expected = dir.filePath("data/zel5_tray/messages");
    EXPECT_EQ(QString::fromStdString(qt.findFile(FileFinder::MessagesFile)), expected);
    EXPECT_TRUE(QFile::exists(expected) && read(expected).isEmpty() && mode(expected) == 0600);
    EXPECT_EQ(qt.findFile(FileFinder::fileType(1)), "");
    write(expected, record("kept"));
    EXPECT_EQ(MessageCollector(&qt).count(), 1u);
}
