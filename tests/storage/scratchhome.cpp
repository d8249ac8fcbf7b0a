#include "scratchhome.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <sys/stat.h>

void ScratchHome::SetUp()
{
    ASSERT_TRUE(dir.isValid());
    configHomeWasSet = qEnvironmentVariableIsSet("XDG_CONFIG_HOME");
    dataHomeWasSet = qEnvironmentVariableIsSet("XDG_DATA_HOME");
    oldConfigHome = qgetenv("XDG_CONFIG_HOME");
    oldDataHome = qgetenv("XDG_DATA_HOME");
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(dir.filePath("config")));
    qputenv("XDG_DATA_HOME", QFile::encodeName(dir.filePath("data")));
}

static void restore(const char* name, const QByteArray& value, bool wasSet)
{
    if (wasSet)
        qputenv(name, value);
    else
        qunsetenv(name);
}

void ScratchHome::TearDown()
{
    restore("XDG_CONFIG_HOME", oldConfigHome, configHomeWasSet);
    restore("XDG_DATA_HOME", oldDataHome, dataHomeWasSet);
}

QString ScratchHome::configFile() const
{
    return dir.filePath("config/zel5_trayrc");
}

QString ScratchHome::messagesFile() const
{
    return dir.filePath("data/zel5_tray/messages");
}

QByteArray ScratchHome::readAll(const QString& path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return QByteArray();
    return f.readAll();
}

void ScratchHome::writeAll(const QString& path, const QByteArray& data)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
    ASSERT_EQ(f.write(data), data.size());
}

int ScratchHome::mode(const QString& path)
{
    struct stat st {};
    if (::stat(QFile::encodeName(path).constData(), &st) != 0)
        return -1;
    return int(st.st_mode & 07777);
}
