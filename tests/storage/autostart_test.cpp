// The "start on logon" entry in a throw-away configuration folder.
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

QByteArray read(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray("(missing)");
}

void write(const QString& path, const QByteArray& data)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly) && f.write(data) == data.size());
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

class AutostartTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dir.isValid());
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(dir.filePath("config")));
        ASSERT_EQ(AutostartEntry::path(), entry);
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
    const ino_t first = inode(entry);
    ASSERT_TRUE(AutostartEntry::apply(true, program));
    EXPECT_EQ(inode(entry), first) << "the same entry again is left alone";

    // A link in its place, say to the system-wide entry, is replaced; its target stays as it was.
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
                               QStringLiteral("/opt/a\nb/zel5_tray"), QStringLiteral("/opt/a\x01")}) {
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

// A launcher takes the Exec value's string escapes first, then the quoting of the argument.
TEST_F(AutostartTest, ExecQuotesAndEscapesAPathSoThatTheLauncherGetsItWhole)
{
    const std::pair<QString, QString> paths[] = {
        {QString::fromUtf8("/opt/программы/zel5_tray"), QString::fromUtf8("/opt/программы/zel5_tray")},
        {"/opt/a=b/50%/zel5_tray", "/opt/a=b/50%%/zel5_tray"},
        {"/opt/my apps/zel5_tray", "\"/opt/my apps/zel5_tray\""},
        {R"(/home/it's (new)/`id` $HOME \ "x" 50%/zel5_tray)",
         R"("/home/it's (new)/\\`id\\` \\$HOME \\\\ \\"x\\" 50%%/zel5_tray")"}};
    for (const auto& [path, exec] : paths) {
        ASSERT_TRUE(AutostartEntry::apply(true, path)) << qPrintable(path);
        EXPECT_EQ(QString::fromUtf8(execLine(entry)), exec) << qPrintable(path);
    }
    for (const QChar c : QStringLiteral(" \"'\\><~|&;$*?#()`")) // each one alone makes the quotes
        EXPECT_TRUE(AutostartEntry::execValue(QStringLiteral("/opt/a%1b").arg(c)).startsWith(u'"')) << int(c.unicode());
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
