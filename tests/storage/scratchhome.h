// A throw-away home for one test: the configuration and data directories
// point into a temporary directory, so the user's own files are never touched.
#ifndef ZEL5_TESTS_SCRATCHHOME_H
#define ZEL5_TESTS_SCRATCHHOME_H

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <sys/stat.h>

class ScratchHome : public ::testing::Test {
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
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
    }
    static void write(const QString& path, const QByteArray& data)
    {
        QDir().mkpath(QFileInfo(path).absolutePath());
        QFile f(path);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(data) == data.size());
    }
    static int mode(const QString& path)
    {
        struct stat st {};
        return ::stat(QFile::encodeName(path).constData(), &st) == 0 ? int(st.st_mode & 0777) : -1;
    }

    QTemporaryDir dir;
};

#endif
