#include "storelock.h"

#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

#include <algorithm>

QString StoreLock::path()
{
    // The store's own directory, as FileFinderQT finds it.
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation)
        + QStringLiteral("/zel5_tray/messages.lock");
}

StoreLock::StoreLock(int waitMs) : file(path())
{
    // The first program to run may find no data directory yet.
    QDir().mkpath(QFileInfo(path()).absolutePath());
    held = file.tryLock(std::max(waitMs, 0));
}

StoreLock::~StoreLock()
{
    if (held)
        file.unlock();
}
