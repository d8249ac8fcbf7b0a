// A throw-away home for one test: the configuration and data directories
// point into a temporary directory, so the user's own files are never touched.
#ifndef ZEL5_TESTS_SCRATCHHOME_H
#define ZEL5_TESTS_SCRATCHHOME_H

#include <QByteArray>
#include <QString>
#include <QTemporaryDir>

#include <gtest/gtest.h>

class ScratchHome : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    QString configFile() const;   // where the configuration lives
    QString messagesFile() const; // where the message store lives

    static QByteArray readAll(const QString& path);
    static void writeAll(const QString& path, const QByteArray& data);
    static int mode(const QString& path); // permission bits

    QTemporaryDir dir;

private:
    QByteArray oldConfigHome;
    QByteArray oldDataHome;
    bool configHomeWasSet = false;
    bool dataHomeWasSet = false;
};

#endif
