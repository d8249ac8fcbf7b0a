#include "filefinderqt.h"

#include <QDir>
#include <QFile>
#include <QStandardPaths>

#include <fcntl.h>
#include <unistd.h>

std::string FileFinderQT::findFile(fileType type)
{
    if (type != MessagesFile)
        return std::string();
    const QString base = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    if (base.isEmpty())
        return std::string();
    const QString dir = base + QStringLiteral("/zel5_tray");
    QDir().mkpath(dir);
    const QByteArray path = QFile::encodeName(dir + QStringLiteral("/messages"));

    // First use: an empty store, private to the subscriber like its later saves.
    const int fd = ::open(path.constData(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd >= 0)
        ::close(fd);
    return path.toStdString();
}
