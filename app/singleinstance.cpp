#include "singleinstance.h"

#include <QByteArray>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSocketNotifier>
#include <QStandardPaths>
#include <QTimer>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// Longest request or answer line taken, newline included.
constexpr qsizetype maxLineBytes = 256;
// A client that connects and says nothing is let go after this.
constexpr int idleClientMs = 2000;
// How long a start waits for another one that is at the check right now;
// that one holds the lock only while it probes the socket.
constexpr int lockWaitMs = 3000;
constexpr long lockStepMs = 10;
constexpr int listenBacklog = 8;

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

void sleepStep()
{
    const timespec step{0, lockStepMs * 1000000L};
    ::nanosleep(&step, nullptr);
}

QString errnoText(int code)
{
    return QString::fromLocal8Bit(std::strerror(code));
}

// The socket's address; false when the path does not fit into one.
bool unixAddress(const QString& path, sockaddr_un& address)
{
    const QByteArray name = QFile::encodeName(path);
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    if (name.size() >= static_cast<qsizetype>(sizeof address.sun_path))
        return false;
    std::memcpy(address.sun_path, name.constData(), static_cast<size_t>(name.size()));
    return true;
}

// A descriptor closed when the holder goes.
class Fd {
public:
    explicit Fd(int fd = -1) : fd(fd) {}
    ~Fd() { reset(); }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd; }
    int release() { return std::exchange(fd, -1); }
    void reset()
    {
        if (fd >= 0)
            ::close(fd);
        fd = -1;
    }

private:
    int fd;
};

int newSocket()
{
    return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

// Connects without waiting: 0 when a listener took the connection, else the
// errno (ECONNREFUSED or ENOENT when nothing listens, EAGAIN when its queue
// is full).
int connectNow(int fd, const QString& path)
{
    sockaddr_un address;
    if (!unixAddress(path, address))
        return ENAMETOOLONG;
    int rc;
    do
        rc = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    while (rc != 0 && errno == EINTR);
    return rc == 0 ? 0 : errno;
}

// Waits for the events on fd until the deadline; false when it passed.
bool waitFor(int fd, short events, const QDeadlineTimer& deadline)
{
    for (;;) {
        pollfd p{fd, events, 0};
        const int rc = ::poll(&p, 1, remainingMs(deadline));
        if (rc > 0)
            return true;
        if (rc == 0 || errno != EINTR)
            return false;
    }
}

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
            sleepStep();
        }
    }

private:
    int fd = -1;
};

} // namespace

// One connected start: its line is read as it comes, answered once, and the
// connection closed. One that says nothing is let go after idleClientMs.
class SingleInstance::Client : public QObject {
public:
    Client(int fd, SingleInstance* owner)
        : QObject(owner), fd(fd), owner(owner), notifier(fd, QSocketNotifier::Read, this)
    {
        connect(&notifier, &QSocketNotifier::activated, this, &Client::onReadable);
        QTimer::singleShot(idleClientMs, this, [this] { finish(nullptr); });
    }
    ~Client() override { ::close(fd); }

private:
    void onReadable()
    {
        char chunk[maxLineBytes];
        const ssize_t n = ::recv(fd, chunk, sizeof chunk, MSG_DONTWAIT);
        if (n < 0 && (errno == EAGAIN || errno == EINTR))
            return;
        if (n <= 0)
            return finish(nullptr); // gone, or an error: nothing to answer
        line.append(chunk, n);
        const qsizetype end = line.indexOf('\n');
        if (end < 0) {
            if (line.size() >= maxLineBytes)
                finish("error request too long\n");
            return;
        }
        // One request per connection; what follows the first line is ignored.
        if (line.left(end).trimmed() != "show")
            return finish("error unknown request\n");
        finish("ok\n");
        emit owner->showRequested();
    }

    void finish(const char* answer)
    {
        notifier.setEnabled(false);
        // A few bytes into an empty socket buffer: this does not block.
        if (answer)
            (void)::send(fd, answer, std::strlen(answer), MSG_DONTWAIT | MSG_NOSIGNAL);
        deleteLater();
    }

    const int fd;
    SingleInstance* const owner;
    QSocketNotifier notifier;
    QByteArray line;
};

SingleInstance::SingleInstance(QObject* parent)
    : QObject(parent)
{
}

SingleInstance::~SingleInstance()
{
    if (listenFd < 0)
        return;
    delete acceptNotifier;
    ::close(listenFd);
    ::unlink(QFile::encodeName(socketPath()).constData());
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
    const QString path = socketPath();
    const auto fail = [&](int code) {
        addressInUse = code == EADDRINUSE;
        error = QStringLiteral("cannot listen on %1: %2").arg(path, errnoText(code));
        return false;
    };
    sockaddr_un address;
    if (!unixAddress(path, address))
        return fail(ENAMETOOLONG);
    Fd fd(newSocket());
    if (fd.get() < 0)
        return fail(errno);
    // bind() never replaces a file: a running tray's socket stays its own.
    if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return fail(errno);
    // The runtime folder is private to the user already; the file is made so too.
    ::chmod(address.sun_path, S_IRUSR | S_IWUSR);
    if (::listen(fd.get(), listenBacklog) != 0) {
        const int code = errno;
        ::unlink(address.sun_path);
        return fail(code);
    }
    listenFd = fd.release();
    acceptNotifier = new QSocketNotifier(listenFd, QSocketNotifier::Read, this);
    connect(acceptNotifier, &QSocketNotifier::activated, this, &SingleInstance::onNewConnection);
    error.clear();
    return true;
}

bool SingleInstance::tryToBecomePrimary()
{
    if (listenFd >= 0)
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

    // The socket file is there. A running tray takes the connection; a file
    // left by a tray that crashed or was killed refuses it.
    Fd probe(newSocket());
    const int probeError = probe.get() < 0 ? errno : connectNow(probe.get(), path);
    if (probeError == 0) {
        error.clear();
        return false;
    }
    if (probeError != ECONNREFUSED && probeError != ENOENT) {
        // A listener that does not accept (too many waiting, or busy): a tray
        // runs, even if it will not answer.
        error = QStringLiteral("a tray listens on %1 but does not accept: %2").arg(path, errnoText(probeError));
        return false;
    }
    ::unlink(QFile::encodeName(path).constData());
    listenOnce(inUse);
    return true; // listening, or unguarded with the reason in error
}

void SingleInstance::onNewConnection()
{
    for (;;) {
        const int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED)
                continue;
            return; // EAGAIN: all taken; anything else: the next start tries again
        }
        new Client(fd, this);
    }
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

    Fd socket(newSocket());
    if (socket.get() < 0)
        return fail(QStringLiteral("cannot make a socket: %1").arg(errnoText(errno)));
    // A full queue of waiting starts empties soon: try again until the deadline.
    int rc;
    while ((rc = connectNow(socket.get(), path)) == EAGAIN && !deadline.hasExpired())
        sleepStep();
    if (rc != 0)
        return fail(QStringLiteral("cannot reach the running tray at %1: %2").arg(path, errnoText(rc)));

    const QByteArray request = "show\n";
    qsizetype sent = 0;
    while (sent < request.size()) {
        const ssize_t n = ::send(socket.get(), request.constData() + sent, static_cast<size_t>(request.size() - sent),
                                 MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n > 0) {
            sent += n;
            continue;
        }
        if (errno != EAGAIN && errno != EINTR)
            return fail(QStringLiteral("cannot send to the running tray: %1").arg(errnoText(errno)));
        if (!waitFor(socket.get(), POLLOUT, deadline))
            return fail(QStringLiteral("cannot send to the running tray within %1 ms").arg(timeoutMs));
    }

    QByteArray answer;
    while (!answer.contains('\n')) {
        if (answer.size() >= maxLineBytes)
            return fail(QStringLiteral("the running tray's answer is too long"));
        if (!waitFor(socket.get(), POLLIN, deadline))
            return fail(QStringLiteral("the running tray did not answer within %1 ms").arg(timeoutMs));
        char chunk[maxLineBytes];
        const ssize_t n = ::recv(socket.get(), chunk, sizeof chunk, MSG_DONTWAIT);
        if (n == 0)
            return fail(QStringLiteral("the running tray closed the connection without answering"));
        if (n < 0 && errno != EAGAIN && errno != EINTR)
            return fail(QStringLiteral("cannot read the running tray's answer: %1").arg(errnoText(errno)));
        if (n > 0)
            answer.append(chunk, n);
    }
    answer = answer.left(answer.indexOf('\n')).trimmed();
    if (answer == "ok") {
        if (error)
            error->clear();
        return true;
    }
    return fail(QStringLiteral("the running tray answered: %1").arg(QString::fromUtf8(answer)));
}
