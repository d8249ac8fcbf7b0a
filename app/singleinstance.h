// One tray per user session. The first start listens on a local socket in the
// user's runtime folder; a later start finds it there, asks it to show itself
// and ends before it reads the settings, the message store or talks to the
// billing server, so the server never sees a second session from the same
// desktop.
//
// The exchange is one line each way: the later start sends "show", the first
// answers "ok" (or "error <reason>" for a line it does not know) and closes.
#ifndef ZEL5_SINGLEINSTANCE_H
#define ZEL5_SINGLEINSTANCE_H

#include <QObject>
#include <QString>

class QSocketNotifier;

class SingleInstance : public QObject {
    Q_OBJECT
public:
    explicit SingleInstance(QObject* parent = nullptr);
    ~SingleInstance() override; // stops listening and removes the socket file

    // Listens when no other tray of this user does; true when this process is
    // the first and should run. A socket file that nothing listens on any
    // more (left by a crash or a kill) is removed and taken over. Two starts
    // at the same moment take turns under a lock file, so only one wins.
    // When the socket cannot be set up at all the tray still runs (true),
    // unguarded, and errorString() says why; false only when another tray
    // holds the socket or the lock stays taken.
    bool tryToBecomePrimary();
    bool isPrimary() const { return listenFd >= 0; }
    // Why the last tryToBecomePrimary() or notifyPrimary() did not go as
    // planned; empty when it did.
    QString errorString() const { return error; }

    // Asks the running tray to show itself and waits, at most timeoutMs in
    // all, for its answer. Blocks the calling thread: for a start that is
    // about to end, never for an interface thread. error (if given) gets the
    // reason of a false.
    static bool notifyPrimary(int timeoutMs, QString* error = nullptr);

    // The socket's path: the user's runtime folder ($XDG_RUNTIME_DIR, else
    // Qt's runtime location), a name with the user's id in it.
    static QString socketPath();
    static QString lockPath();

signals:
    // In the first process, once for each "show" a later start sends.
    void showRequested();

private:
    class Client;

    void onNewConnection();
    bool listenOnce(bool& addressInUse);

    // A plain Unix socket watched by the event loop: the tray needs no
    // network module for one line each way.
    int listenFd = -1;
    QSocketNotifier* acceptNotifier = nullptr;
    QString error;
};

#endif
