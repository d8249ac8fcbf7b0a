// Stand-ins for the desktop's services, served from the test process on
// private buses: each on a connection of its own, owning the service's
// well-known name as the real one would. Their objects live on the test's
// thread, so the tray's calls are answered through its event loop.
#ifndef ZEL5_TESTS_DESKTOPSTANDINS_H
#define ZEL5_TESTS_DESKTOPSTANDINS_H

#include <QDBusConnection>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantMap>

// A connection of its own to the bus at `address` that exports one object
// at `path` and owns `service`. Gone with the object: name, export and
// connection.
class StandIn : public QObject {
    Q_OBJECT
public:
    StandIn(const QString& address, const QString& connectionName, const QString& service, const QString& path);
    ~StandIn() override;

    // Connects and exports the object, then owns the name; false with the
    // reason in `error`.
    bool start(QString* error);
    // Owns the name again, or gives it up: calls to the service then fail,
    // as on a desktop without it.
    bool claim();
    bool release();

protected:
    QDBusConnection connection() const;

private:
    QString address, connectionName, service, path;
    bool connected = false;
};

// org.freedesktop.Notifications: records every Notify call and answers with
// ids 1, 2, 3, ... or the id to replace.
class NotificationServer : public StandIn {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
public:
    struct Notification {
        QString appName;
        uint replacesId = 0;
        QString appIcon;
        QString summary;
        QString body;
        QStringList actions; // key, label, key, label, ...
        QVariantMap hints;
        int expireTimeout = 0;
        uint id = 0; // the answer
    };

    explicit NotificationServer(const QString& address);

    // Forgets what it received, counts ids from 1 again and owns the name.
    bool reset();

    const QList<Notification>& received() const { return notifications; }
    QList<uint> closedByCall; // ids the client closed with CloseNotification

    // What the desktop sends when the user picks an action of notification
    // `id`, or when a notification goes (reason 1 expired, 2 dismissed,
    // 3 closed by a call).
    void invokeAction(uint id, const QString& key) { emit ActionInvoked(id, key); }
    void closed(uint id, uint reason) { emit NotificationClosed(id, reason); }

public slots:
    uint Notify(const QString& appName, uint replacesId, const QString& appIcon, const QString& summary,
                const QString& body, const QStringList& actions, const QVariantMap& hints, int expireTimeout);
    QStringList GetCapabilities();
    QString GetServerInformation(QString& vendor, QString& version, QString& protocolVersion);
    void CloseNotification(uint id);

signals:
    void ActionInvoked(uint id, const QString& actionKey);
    void NotificationClosed(uint id, uint reason);

private:
    QList<Notification> notifications;
    uint lastId = 0;
};

// org.freedesktop.login1 on the system bus: only the signal the tray listens
// to around a suspend.
class LogindStandIn : public StandIn {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.login1.Manager")
public:
    explicit LogindStandIn(const QString& address);

    // true: the machine is about to sleep; false: it has woken up.
    void prepareForSleep(bool sleeping) { emit PrepareForSleep(sleeping); }

signals:
    void PrepareForSleep(bool start);
};

// PrepareForSleep as it reaches the tray: received on the tray's own system
// bus connection.
class SleepSignals : public QObject {
    Q_OBJECT
public:
    SleepSignals();
    // Every receiver of a signal on a connection has its delivery queued in
    // one go; once the bus has answered a call made after the signal arrived
    // and the queued events ran, the tray has seen it too.
    static void deliverQueued();
    QList<bool> seen;

public slots:
    void prepareForSleep(bool sleeping) { seen << sleeping; }
};

#endif
