#include "singleinstance.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocalServer>
#include <QLocalSocket>
#include <QStandardPaths>
#include <QTimer>

#include <cerrno>
#include <ctime>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

// Longest request or answer line taken, newline included.
constexpr qint64 maxLineBytes = 256;
// A client that connects and says nothing is let go after this.
constexpr int idleClientMs = 2000;
// How long a start waits for another one that is at the check right now;
// that one holds the lock for at most a probe's wait.
constexpr int lockWaitMs = 3000;
constexpr long lockStepMs = 10;
// How long the probe waits for a connection to the socket it found.
constexpr int probeWaitMs = 1000;

QString runtimeDir()
{
    const QString xdg = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (!xdg.isEmpty() && QFileInfo(xdg).isDir())
        return xdg;
    const QString qt = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    if (!qt.isEmpty())
        return qt;
    return QDir::tempPath(); // the file names still carry the user id
}

QString fileName(const char* suffix)
{
    return runtimeDir() + QStringLiteral("/zel5_tray-%1.%2").arg(::getuid()).arg(QLatin1String(suffix));
}

int remainingMs(const QDeadlineTimer& deadline)
{
    return static_cast<int>(qMax<qint64>(deadline.remainingTime(), 0));
}

// An exclusive flock() on the lock file, held while the object lives. The
// kernel lets go of it when the process ends in any way, so a start killed
// during the check leaves nothing behind that a later one must judge stale.
class CheckLock {
public:
    enum Result { Held, Busy, Unavailable };

    explicit CheckLock(const QString& path)
    {
        fd = ::open(QFile::encodeName(path).constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    }
    ~CheckLock()
    {
        if (fd >= 0)
            ::close(fd); // releases the lock
    }
    CheckLock(const CheckLock&) = delete;
    CheckLock& operator=(const CheckLock&) = delete;

    Result take(int waitMs)
    {
        if (fd < 0)
            return Unavailable;
        const QDeadlineTimer deadline(waitMs);
        for (;;) {
            if (::flock(fd, LOCK_EX | LOCK_NB) == 0)
                return Held;
            if (errno == EINTR)
                continue;
            if (errno != EWOULDBLOCK)
                return Unavailable;
            if (deadline.hasExpired())
                return Busy;
            const timespec step{0, lockStepMs * 1000000L};
            ::nanosleep(&step, nullptr);
        }
    }

private:
    int fd = -1;
};

} // namespace

SingleInstance::SingleInstance(QObject* parent)
    : QObject(parent)
{
}

SingleInstance::~SingleInstance()
{
    if (server)
        server->close(); // removes the socket file
}

QString SingleInstance::socketPath()
{
    return fileName("sock");
}

QString SingleInstance::lockPath()
{
    return fileName("lock");
}

bool SingleInstance::listenOnce(bool& addressInUse)
{
    addressInUse = false;
    auto* candidate = new QLocalServer(this);
    // No access option: with one, Qt binds in a temporary folder and renames
    // the socket over an existing one, which would take a running tray's
    // socket away. The runtime folder is private to the user already; the
    // file is made so too.
    if (!candidate->listen(socketPath())) {
        addressInUse = candidate->serverError() == QAbstractSocket::AddressInUseError;
        error = QStringLiteral("cannot listen on %1: %2").arg(socketPath(), candidate->errorString());
        delete candidate;
        return false;
    }
    QFile::setPermissions(socketPath(), QFile::ReadOwner | QFile::WriteOwner);
    server = candidate;
    connect(server, &QLocalServer::newConnection, this, &SingleInstance::onNewConnection);
    error.clear();
    return true;
}

bool SingleInstance::tryToBecomePrimary()
{
    if (server)
        return true;
    error.clear();
    const QString path = socketPath();

    // Two starts at the same moment must not both find no tray and both
    // listen (the second after removing the first's socket as stale).
    CheckLock lock(lockPath());
    switch (lock.take(lockWaitMs)) {
    case CheckLock::Held:
        break;
    case CheckLock::Busy:
        error = QStringLiteral("another start of the tray held %1 for over %2 ms").arg(lockPath()).arg(lockWaitMs);
        return false;
    case CheckLock::Unavailable:
        // The runtime folder cannot hold the lock: run, unguarded.
        error = QStringLiteral("cannot lock %1; not checking for another running tray").arg(lockPath());
        return true;
    }

    bool inUse = false;
    if (listenOnce(inUse))
        return true;
    if (!inUse)
        return true; // cannot listen at all: run, unguarded, with the reason in error

    // The socket file is there. A running tray accepts the connection; a file
    // left by a tray that crashed or was killed refuses it.
    QLocalSocket probe;
    probe.connectToServer(path);
    if (probe.waitForConnected(probeWaitMs)) {
        probe.abort();
        error.clear();
        return false;
    }
    const QLocalSocket::LocalSocketError probeError = probe.error();
    if (probeError != QLocalSocket::ConnectionRefusedError && probeError != QLocalSocket::ServerNotFoundError) {
        // A listener that does not accept (too many waiting, or busy): a tray
        // runs, even if it will not answer.
        error = QStringLiteral("a tray listens on %1 but does not accept: %2").arg(path, probe.errorString());
        return false;
    }
    QLocalServer::removeServer(path);
    listenOnce(inUse);
    return true; // listening, or unguarded with the reason in error
}

void SingleInstance::onNewConnection()
{
    while (QLocalSocket* socket = server->nextPendingConnection()) {
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        connect(socket, &QLocalSocket::readyRead, this, [this, socket] { onReadyRead(socket); });
        QTimer::singleShot(idleClientMs, socket, [socket] {
            socket->abort();
            socket->deleteLater();
        });
        if (socket->canReadLine())
            onReadyRead(socket);
    }
}

void SingleInstance::onReadyRead(QLocalSocket* socket)
{
    // One request per connection; what follows the first line is ignored.
    if (socket->state() != QLocalSocket::ConnectedState)
        return;
    if (!socket->canReadLine()) {
        if (socket->bytesAvailable() >= maxLineBytes) {
            socket->write("error request too long\n");
            socket->disconnectFromServer();
        }
        return;
    }
    const QByteArray line = socket->readLine(maxLineBytes).trimmed();
    if (line != "show") {
        socket->write("error unknown request\n");
        socket->disconnectFromServer();
        return;
    }
    socket->write("ok\n");
    socket->disconnectFromServer();
    emit showRequested();
}

bool SingleInstance::notifyPrimary(int timeoutMs, QString* error)
{
    const QDeadlineTimer deadline(qMax(timeoutMs, 0));
    const QString path = socketPath();
    const auto fail = [error](const QString& why) {
        if (error)
            *error = why;
        return false;
    };

    QLocalSocket socket;
    socket.connectToServer(path);
    if (!socket.waitForConnected(remainingMs(deadline)))
        return fail(QStringLiteral("cannot reach the running tray at %1: %2").arg(path, socket.errorString()));
    socket.write("show\n");
    socket.flush();
    while (socket.bytesToWrite() > 0) {
        if (deadline.hasExpired() || !socket.waitForBytesWritten(remainingMs(deadline)))
            return fail(QStringLiteral("cannot send to the running tray: %1").arg(socket.errorString()));
    }
    while (!socket.canReadLine()) {
        if (socket.bytesAvailable() >= maxLineBytes)
            return fail(QStringLiteral("the running tray's answer is too long"));
        if (socket.state() != QLocalSocket::ConnectedState)
            return fail(QStringLiteral("the running tray closed the connection without answering"));
        if (deadline.hasExpired())
            return fail(QStringLiteral("the running tray did not answer within %1 ms").arg(timeoutMs));
        socket.waitForReadyRead(remainingMs(deadline));
    }
    const QByteArray answer = socket.readLine(maxLineBytes).trimmed();
    socket.abort();
    if (answer == "ok") {
        if (error)
            error->clear();
        return true;
    }
    return fail(QStringLiteral("the running tray answered: %1").arg(QString::fromUtf8(answer)));
}
