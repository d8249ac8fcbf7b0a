// The message store's file at sizes and in sequences the tray meets: read
// again while it holds messages (before every save), and stores larger than
// the buffer the file is written through.
#include "filefinder.h"
#include "messagecollector.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtEndian>

#include <gtest/gtest.h>

namespace {

class FixedFinder : public FileFinder {
public:
    explicit FixedFinder(std::string path) : path(std::move(path)) {}
    std::string findFile(fileType) override { return path; }

private:
    std::string path;
};

QByteArray field(const QByteArray& s)
{
    const quint32 n = qToLittleEndian(quint32(s.size()));
    return QByteArray(reinterpret_cast<const char*>(&n), 4) + s;
}

QByteArray record(const QByteArray& subject, const QByteArray& text, const QByteArray& date = "02.03.2024 09:00:00")
{
    return field(subject) + field(text) + field(date);
}

class MessageFileTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(dir.isValid()); }

    void write(const QByteArray& data)
    {
        QFile f(path);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(data) == data.size());
    }
    QByteArray read() const
    {
        QFile f(path);
        return f.open(QIODevice::ReadOnly) ? f.readAll() : "(missing)";
    }
    // Every message from the first to the last as "subject|text|date" lines;
    // the cursor ends on the last one.
    static std::string listed(MessageCollector& store)
    {
        for (std::size_t i = 0; i < store.count(); ++i)
            store.prevMessage();
        std::string out, subject, text, date;
        for (std::size_t i = 0; i < store.count(); ++i, store.nextMessage()) {
            store.currentMessage(subject, text, date);
            out += subject + "|" + text + "|" + date + "\n";
        }
        return out;
    }

    QTemporaryDir dir;
    const QString path = dir.filePath("messages");
    FixedFinder finder {QFile::encodeName(path).toStdString()};
};

} // namespace

TEST_F(MessageFileTest, ReadingAgainTakesWhateverTheFileNowHoldsAndKeepsTheListWhenItIsGone)
{
    const QByteArray longer(100, 'L');
    write(record(longer, longer) + record("two", "t") + record(longer, "three"));
    MessageCollector store(&finder);
    ASSERT_EQ(store.count(), 3u);

    // Fewer and shorter messages over longer ones, one cut at its zero byte.
    write(record(QByteArray("ab\0cd", 5), "x", "d1") + record("b", QByteArray(300, 'y'), "d2"));
    EXPECT_TRUE(store.synchronize(false));
    EXPECT_EQ(listed(store), "ab|x|d1\nb|" + std::string(300, 'y') + "|d2\n");

    // More than the list holds.
    write(record("1", "a") + record("2", "b") + record("3", "c") + record("4", "d"));
    EXPECT_TRUE(store.synchronize(false));
    EXPECT_EQ(store.count(), 4u);
    EXPECT_EQ(store.currentIndex(), 3u);

    // A file that cannot be read leaves the list as it was.
    ASSERT_TRUE(QFile::remove(path));
    EXPECT_FALSE(store.synchronize(false));
    EXPECT_EQ(store.count(), 4u);

    write(QByteArray());
    EXPECT_TRUE(store.synchronize(false));
    EXPECT_TRUE(store.empty());
}

TEST_F(MessageFileTest, StoresLargerThanTheWriteBufferRoundTripByteForByte)
{
    // 1200 messages of about 650 bytes, one text far larger than the buffer
    // in the middle and empty strings: many buffer-fulls, and a string that
    // goes out on its own between them.
    QByteArray expected;
    {
        MessageCollector store(&finder);
        for (int i = 0; i < 1200; ++i) {
            std::string subject = "Notice " + std::to_string(i), date = "01.01.2024";
            std::string text = i == 600 ? std::string(700 * 1024, 'h') : i % 7 == 0 ? "" : std::string(620, 'a' + i % 26);
            store.insertMessage(subject, text, date);
            expected += record(QByteArray::fromStdString(subject), QByteArray::fromStdString(text), "01.01.2024");
        }
        ASSERT_TRUE(store.synchronize(true));
        EXPECT_EQ(read(), expected);
    }
    MessageCollector again(&finder);
    EXPECT_EQ(again.count(), 1200u);
    EXPECT_TRUE(again.synchronize(false));
    ASSERT_TRUE(again.synchronize(true));
    EXPECT_EQ(read(), expected);
}
