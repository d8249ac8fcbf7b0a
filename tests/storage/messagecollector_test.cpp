#include "filefinderqt.h"
#include "messagecollector.h"
#include "scratchhome.h"

#include <QDir>
#include <QFile>

#include <csignal>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Points the store at a file of the test's choosing.
class FixedFinder : public FileFinder {
public:
    explicit FixedFinder(std::string path) : path(std::move(path)) {}
    std::string findFile(fileType) override { return path; }
    std::string path;
};

QByteArray field(const QByteArray& s)
{
    const quint32 n = quint32(s.size());
    QByteArray prefix(4, '\0');
    for (int i = 0; i < 4; ++i)
        prefix[i] = char(n >> (8 * i) & 0xFF);
    return prefix + s;
}

// One record as the file keeps it: subject, text, date.
QByteArray record(const QByteArray& subject, const QByteArray& text, const QByteArray& date)
{
    return field(subject) + field(text) + field(date);
}

std::string current(MessageCollector& store)
{
    std::string subject, text, date;
    if (!store.currentMessage(subject, text, date))
        return "(empty)";
    return subject;
}

void add(MessageCollector& store, std::string subject)
{
    std::string text = "<p>" + subject + "</p>";
    std::string date = "01.02.2007 10:00:00";
    store.insertMessage(subject, text, date);
}

class MessageCollectorTest : public ScratchHome {
protected:
    std::string path() const { return dir.filePath("messages").toStdString(); }
    QString qpath() const { return dir.filePath("messages"); }
    void writeFile(const QByteArray& data) { writeAll(qpath(), data); }
};

} // namespace

TEST_F(MessageCollectorTest, StringsAreLengthPrefixedLittleEndianAndCutAtAZeroByte)
{
    std::ostringstream out;
    ASSERT_TRUE(MessageCollector::writeString(out, "abc"));
    EXPECT_EQ(out.str(), std::string("\x03\x00\x00\x00" "abc", 7));

    std::string all(300, 'x');
    for (int i = 1; i < 256; ++i)
        all[size_t(i)] = char(i);
    all[0] = '\xff';
    std::ostringstream big;
    ASSERT_TRUE(MessageCollector::writeString(big, all));
    EXPECT_EQ(big.str().substr(0, 4), std::string("\x2c\x01\x00\x00", 4));
    std::istringstream back(big.str());
    std::string s;
    ASSERT_TRUE(MessageCollector::readString(back, s));
    EXPECT_EQ(s, all);

    std::istringstream withZero(std::string("\x05\x00\x00\x00" "ab\0cd" "\x00\x00\x00\x00", 13));
    ASSERT_TRUE(MessageCollector::readString(withZero, s));
    EXPECT_EQ(s, "ab");
    ASSERT_TRUE(MessageCollector::readString(withZero, s)); // the stream went on after the cut string
    EXPECT_EQ(s, "");
    EXPECT_FALSE(MessageCollector::readString(withZero, s));
}

TEST_F(MessageCollectorTest, SavesRecordsInFileOrderAndLoadsThemBack)
{
    {
        FixedFinder finder(path());
        MessageCollector store(&finder);
        EXPECT_TRUE(store.empty());
        std::string subject = "Тема", text = "<b>body</b>", date = "05.03.2007 14:07:09";
        store.insertMessage(subject, text, date);
        add(store, "second");
        add(store, "second"); // no duplicate detection
        EXPECT_EQ(store.count(), 3u);
        EXPECT_EQ(store.currentIndex(), 2u);
    } // destruction saves

    const QByteArray file = readAll(qpath());
    EXPECT_TRUE(file.startsWith(record("Тема", "<b>body</b>", "05.03.2007 14:07:09")));
    EXPECT_EQ(file.size(), record("Тема", "<b>body</b>", "05.03.2007 14:07:09").size()
                               + 2 * record("second", "<p>second</p>", "01.02.2007 10:00:00").size());

    FixedFinder finder(path());
    MessageCollector store(&finder);
    ASSERT_EQ(store.count(), 3u);
    EXPECT_EQ(store.currentIndex(), 2u);
    store.prevMessage();
    store.prevMessage();
    std::string subject, text, date;
    ASSERT_TRUE(store.currentMessage(subject, text, date));
    EXPECT_EQ(subject, "Тема");
    EXPECT_EQ(text, "<b>body</b>");
    EXPECT_EQ(date, "05.03.2007 14:07:09");
}

TEST_F(MessageCollectorTest, DamagedTailsLoseOnlyTheDamagedRecord)
{
    const QByteArray one = record("s1", "t1", "d1");
    const QByteArray two = record("s2", "t2", "d2");
    struct Case {
        const char* what;
        QByteArray data;
        size_t kept;
    };
    const Case cases[] = {
        {"three stray bytes", one + two + "xyz", 2},
        {"a huge length prefix", one + QByteArray("\xff\xff\xff\xff", 4) + "rest", 1},
        {"a length beyond the end", one + field("s2") + QByteArray("\x10\x00\x00\x00", 4) + "short", 1},
        {"a record without its date", one + field("s2") + field("t2"), 1},
        {"only a length prefix", QByteArray("\x01\x00\x00\x00", 4), 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        writeFile(c.data);
        FixedFinder finder(path());
        MessageCollector store(&finder);
        EXPECT_EQ(store.count(), c.kept);
        EXPECT_FALSE(store.synchronize(false));
        ASSERT_TRUE(store.synchronize(true));
        EXPECT_EQ(readAll(qpath()), (one + two).left(int(c.kept) * one.size()));
        EXPECT_TRUE(store.synchronize(false)); // the rewritten file is whole
    }
}

TEST_F(MessageCollectorTest, CursorStopsAtBothEnds)
{
    FixedFinder finder(path());
    MessageCollector store(&finder);
    EXPECT_TRUE(store.empty());
    EXPECT_EQ(current(store), "(empty)");
    store.nextMessage(); // harmless on an empty store
    store.prevMessage();
    store.deleteMessage();
    EXPECT_EQ(store.currentIndex(), 0u);

    add(store, "a");
    add(store, "b");
    add(store, "c");
    EXPECT_EQ(current(store), "c");
    store.nextMessage();
    EXPECT_EQ(current(store), "c");
    store.prevMessage();
    store.prevMessage();
    EXPECT_EQ(current(store), "a");
    store.prevMessage();
    EXPECT_EQ(current(store), "a");
    store.nextMessage();
    EXPECT_EQ(current(store), "b");
    add(store, "d"); // a new message is shown at once
    EXPECT_EQ(current(store), "d");
}

TEST_F(MessageCollectorTest, DeletingShowsTheSuccessorOrTheNewLast)
{
    struct Case {
        int prevSteps; // from the last of a, b, c
        const char* shownAfter;
        const char* left;
    };
    const Case cases[] = {{0, "b", "ab"}, {1, "c", "ac"}, {2, "b", "bc"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.prevSteps);
        FixedFinder finder(path());
        MessageCollector store(&finder);
        while (!store.empty())
            store.deleteMessage();
        add(store, "a");
        add(store, "b");
        add(store, "c");
        for (int i = 0; i < c.prevSteps; ++i)
            store.prevMessage();
        store.deleteMessage();
        EXPECT_EQ(current(store), c.shownAfter);
        std::string left;
        for (store.prevMessage(), store.prevMessage(); ; store.nextMessage()) {
            left += current(store);
            if (store.currentIndex() + 1 == store.count())
                break;
        }
        EXPECT_EQ(left, c.left);
    }

    FixedFinder finder(path());
    MessageCollector store(&finder);
    while (store.count() > 1)
        store.deleteMessage();
    store.deleteMessage();
    EXPECT_TRUE(store.empty());
    EXPECT_EQ(current(store), "(empty)");
}

TEST_F(MessageCollectorTest, AFailedSaveLeavesTheOldFileWhole)
{
    const QByteArray old = record("old", "kept", "d");
    writeFile(old);
    FixedFinder finder(path());
    MessageCollector store(&finder);
    add(store, std::string(64 * 1024, 'n'));

    // A full disk: the file size limit stops the temporary copy half-way.
    {
        struct sigaction ignore {}, previous {};
        ignore.sa_handler = SIG_IGN;
        sigaction(SIGXFSZ, &ignore, &previous);
        rlimit saved {};
        getrlimit(RLIMIT_FSIZE, &saved);
        rlimit tight = saved;
        tight.rlim_cur = 1024;
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &tight), 0);
        const bool saved_ok = store.synchronize(true);
        setrlimit(RLIMIT_FSIZE, &saved);
        sigaction(SIGXFSZ, &previous, nullptr);
        EXPECT_FALSE(saved_ok);
        EXPECT_EQ(readAll(qpath()), old);
        EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files), QStringList{"messages"}); // no temporary left
    }

    // A directory where nothing may be created (permissions do not bind root).
    if (::geteuid() != 0) {
        ASSERT_EQ(::chmod(QFile::encodeName(dir.path()).constData(), 0500), 0);
        const bool saved_ok = store.synchronize(true);
        ::chmod(QFile::encodeName(dir.path()).constData(), 0700);
        EXPECT_FALSE(saved_ok);
        EXPECT_EQ(readAll(qpath()), old);
    }

    EXPECT_EQ(store.count(), 2u); // the list in memory is unaffected
    ASSERT_TRUE(store.synchronize(true));
    MessageCollector reread(&finder);
    EXPECT_EQ(reread.count(), 2u);
}

TEST_F(MessageCollectorTest, AStoreWithoutAUsableFileStillWorksInMemory)
{
    writeAll(dir.filePath("taken"), "a file, not a directory");
    FixedFinder finder(dir.filePath("taken/messages").toStdString());
    MessageCollector store(&finder);
    EXPECT_TRUE(store.empty());
    add(store, "a");
    EXPECT_FALSE(store.synchronize(true));
    EXPECT_FALSE(store.synchronize(false));
    EXPECT_EQ(current(store), "a");

    MessageCollector noFinder(nullptr);
    EXPECT_TRUE(noFinder.empty());
    EXPECT_FALSE(noFinder.synchronize(true));
}

TEST_F(MessageCollectorTest, TheFileFinderCreatesAnEmptyStoreOnFirstUse)
{
    FileFinderQT finder;
    const std::string found = finder.findFile(FileFinder::MessagesFile);
    EXPECT_EQ(QString::fromStdString(found), messagesFile());
    EXPECT_TRUE(QFile::exists(messagesFile()));
    EXPECT_EQ(readAll(messagesFile()).size(), 0);
    EXPECT_EQ(finder.findFile(static_cast<FileFinder::fileType>(1)), "");

    // A second call keeps what the file holds.
    writeAll(messagesFile(), record("s", "t", "d"));
    EXPECT_EQ(finder.findFile(FileFinder::MessagesFile), found);
    MessageCollector store(&finder);
    EXPECT_EQ(store.count(), 1u);
}
