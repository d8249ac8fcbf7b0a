#include "autostartentry.h"

#include "childprocess.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace {

// What a launcher makes of an Exec value: the string value's escapes undone,
// then the arguments unquoted and "%%" taken as "%". What a launcher need
// not take gives a single "(...)" entry: an unknown escape, a lone "%", a
// reserved character outside quotes, an open quote.
QStringList launcherArguments(const QString& value)
{
    const QString escaped = QStringLiteral("s\\ntr"), meant = QStringLiteral(" \\\n\t\r");
    QString text;
    for (qsizetype i = 0; i < value.size(); ++i) {
        const qsizetype e = value[i] != QLatin1Char('\\') ? -2 : i + 1 < value.size() ? escaped.indexOf(value[++i]) : -1;
        if (e == -1)
            return {"(unknown string escape)"};
        text += e < 0 ? value[i] : meant[e];
    }
    const QString reserved = QStringLiteral(" \t\n\"'\\><~|&;$*?#()`");
    QStringList arguments;
    QString current;
    bool inQuotes = false, started = false;
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar c = text[i], next = i + 1 < text.size() ? text[i + 1] : QChar();
        if (c == QLatin1Char('%') && next != QLatin1Char('%'))
            return {"(lone %)"};
        if (c == QLatin1Char('"')) {
            inQuotes = !inQuotes, started = true;
        } else if (inQuotes && c == QLatin1Char('\\')) {
            if (!QStringLiteral("\"`$\\").contains(next))
                return {"(unknown escape in quotes)"};
            current += text[++i];
        } else if (!inQuotes && c == QLatin1Char(' ')) {
            if (started)
                arguments << current;
            current.clear(), started = false;
        } else if (!inQuotes && reserved.contains(c)) {
            return {"(reserved character outside quotes)"};
        } else {
            current += c, started = true;
            i += c == QLatin1Char('%');
        }
    }
    if (inQuotes)
        return {"(open quote)"};
    if (started)
        arguments << current;
    return arguments;
}

QByteArray read(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray("(missing)");
}

QByteArray execLine(const QString& path)
{
    for (const QByteArray& line : read(path).split('\n')) {
        if (line.startsWith("Exec="))
            return line.mid(5);
    }
    return "(none)";
}

ino_t inode(const QString& path)
{
    struct stat st {};
    return ::lstat(QFile::encodeName(path).constData(), &st) == 0 ? st.st_ino : 0;
}

// Each test has its own configuration folder, so the user's autostart
// entries are never touched.
class AutostartTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dir.isValid());
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(dir.filePath("config")));
        ASSERT_EQ(AutostartEntry::path(), entry);
    }
    static void write(const QString& path, const QByteArray& data)
    {
        QDir().mkpath(QFileInfo(path).absolutePath());
        QFile f(path);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly) && f.write(data) == data.size());
    }

    QTemporaryDir dir;
    const QString entry = dir.filePath("config/autostart/zel5_tray.desktop");
    const QString program = QStringLiteral("/usr/bin/zel5_tray");
};

} // namespace

TEST_F(AutostartTest, EnabledWritesTheEntryAndDisabledRemovesIt)
{
    ASSERT_TRUE(AutostartEntry::apply(false, program)); // nothing there: nothing to do
    EXPECT_FALSE(QFileInfo::exists(dir.filePath("config/autostart")));

    ASSERT_TRUE(AutostartEntry::apply(true, program)); // the folder does not exist yet
    EXPECT_EQ(read(entry), "[Desktop Entry]\nType=Application\nName=Orvane ZEL5 Tray\n"
                           "Comment=Shows the state of your internet account in the system tray\n"
                           "Exec=/usr/bin/zel5_tray\nIcon=zel5_tray\nTerminal=false\nCategories=Network;Qt;\n"
                           "X-GNOME-Autostart-enabled=true\n");
    EXPECT_EQ(QDir(dir.filePath("config/autostart")).entryList(QDir::Files), QStringList{"zel5_tray.desktop"});

    ASSERT_TRUE(AutostartEntry::apply(false, program));
    EXPECT_FALSE(QFileInfo::exists(entry));
    EXPECT_TRUE(AutostartEntry::apply(false, program));
}

TEST_F(AutostartTest, AtStartTheEntryIsBroughtInLineAndRewrittenOnlyWhenItDiffers)
{
    // An entry left by an install elsewhere starts the wrong program.
    write(entry, "[Desktop Entry]\nType=Application\nName=Orvane ZEL5 Tray\nExec=/opt/old/zel5_tray\n");
    ASSERT_TRUE(AutostartEntry::apply(true, program));
    EXPECT_EQ(execLine(entry), "/usr/bin/zel5_tray");

    // The same entry again: the file is left alone (a rewrite would be a new file).
    const ino_t first = inode(entry);
    ASSERT_NE(first, ino_t(0));
    ASSERT_TRUE(AutostartEntry::apply(true, program));
    EXPECT_EQ(inode(entry), first);

    // A link in its place, say to the system-wide entry, is replaced by an
    // entry of its own; the link's target stays as it was.
    const QString system = dir.filePath("zel5_tray.desktop");
    write(system, "[Desktop Entry]\nExec=zel5_tray\n");
    ASSERT_TRUE(QFile::remove(entry) && QFile::link(system, entry));
    ASSERT_TRUE(AutostartEntry::apply(true, program));
    EXPECT_FALSE(QFileInfo(entry).isSymLink());
    EXPECT_EQ(execLine(entry), "/usr/bin/zel5_tray");
    EXPECT_EQ(read(system), "[Desktop Entry]\nExec=zel5_tray\n");

    // A dangling link goes when the entry is turned off.
    ASSERT_TRUE(QFile::remove(entry) && QFile::link(dir.filePath("gone.desktop"), entry));
    ASSERT_TRUE(AutostartEntry::apply(false, program));
    EXPECT_FALSE(QFileInfo(entry).isSymLink());
}

TEST_F(AutostartTest, BadProgramPathsAndUnwritablePlacesFailWithoutLosingTheEntry)
{
    ASSERT_TRUE(AutostartEntry::apply(true, program));
    const QByteArray good = read(entry);
    for (const QString& bad : {QString(), QStringLiteral("zel5_tray"), QStringLiteral("bin/zel5_tray"),
                               QStringLiteral("/opt/a\nb/zel5_tray"), QStringLiteral("/opt/a\x01"),
                               QStringLiteral("/opt/a\tb/zel5_tray")}) {
        EXPECT_FALSE(AutostartEntry::apply(true, bad)) << qPrintable(bad);
        EXPECT_EQ(read(entry), good) << qPrintable(bad);
    }

    // The entry's name taken by a folder: neither written nor removed.
    ASSERT_TRUE(QFile::remove(entry) && QDir().mkpath(entry + "/x"));
    EXPECT_FALSE(AutostartEntry::apply(true, program));
    EXPECT_FALSE(AutostartEntry::apply(false, program));
    EXPECT_TRUE(QFileInfo(entry).isDir());

    // The autostart folder's name taken by a file.
    ASSERT_TRUE(QDir(dir.filePath("config/autostart")).removeRecursively());
    write(dir.filePath("config/autostart"), "not a folder");
    EXPECT_FALSE(AutostartEntry::apply(true, program));
    EXPECT_TRUE(AutostartEntry::apply(false, program)); // no entry there
}

TEST_F(AutostartTest, ExecGivesTheLauncherAnyPathAsItsOneArgument)
{
    EXPECT_EQ(AutostartEntry::execValue(program), program) << "a plain path needs no quotes";
    QStringList paths = {QString::fromUtf8("/opt/программы/zel5_tray"),
                         QStringLiteral("/home/it's (new)/`id` $HOME \\\\ \"x\" 50%% ~/a;b&c|d<e>f*g?h#i/zel5_tray")};
    for (const QChar c : QStringLiteral(" \"'\\><~|&;$*?#()`%="))
        paths << QStringLiteral("/opt/a%1b/zel5_tray").arg(c);
    for (const QString& path : paths) {
        ASSERT_TRUE(AutostartEntry::apply(true, path)) << qPrintable(path);
        EXPECT_EQ(launcherArguments(QString::fromUtf8(execLine(entry))), QStringList{path})
            << qPrintable(path) << " written as " << execLine(entry).constData();
    }
}

TEST_F(AutostartTest, TheWrittenEntryPassesDesktopFileValidate)
{
    const QString validator = QStandardPaths::findExecutable(QStringLiteral("desktop-file-validate"));
    if (validator.isEmpty())
        GTEST_SKIP() << "desktop-file-validate is not installed (Debian package desktop-file-utils)";
    for (const QString& path : {program, QStringLiteral("/home/it's (new)/`id` $HOME \\ \"x\" 50%/zel5_tray")}) {
        ASSERT_TRUE(AutostartEntry::apply(true, path));
        zel5test::ChildProcess run({validator.toStdString(), entry.toStdString()}, {},
                                   zel5test::ChildProcess::CaptureBoth);
        ASSERT_TRUE(run.started()) << run.startError();
        const auto exit = run.waitExit(std::chrono::seconds(30));
        ASSERT_TRUE(exit) << "desktop-file-validate did not end within 30 s";
        EXPECT_EQ(exit->code(), 0) << exit->describe();
        EXPECT_EQ(run.takeStdout() + run.stderrText(), "") << qPrintable(path);
    }
}
