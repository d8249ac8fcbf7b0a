// Desktop notifications: the desktop's notification service on the session
// bus, or the tray icon's balloon where the desktop has no such service.
// Each kind of notification keeps one on screen: a new one replaces the
// last of its kind.
#ifndef ZEL5_DESKTOPNOTIFIER_H
#define ZEL5_DESKTOPNOTIFIER_H

#include <QMap>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>

class QDBusPendingCallWatcher;
class QSystemTrayIcon;

class DesktopNotifier : public QObject {
    Q_OBJECT
public:
    enum Kind {
        NewMessages,
        LowBalance,
        NoTray,
        LoginRefused,
        WebUnavailable,
    };
    enum Urgency {
        Low = 0,
        Normal = 1,
        Critical = 2,
    };

    // fallback may be null: then a desktop without the service shows nothing.
    explicit DesktopNotifier(QSystemTrayIcon* fallback, QObject* parent = nullptr);

    // Shows or replaces the notification of `kind`. actions: pairs of key
    // and label, as the service takes them. Never waits on the service:
    // while its answer to the last one of `kind` is awaited, the newest
    // further one waits and then replaces it, so two never stack.
    void notify(Kind kind, const QString& summary, const QString& body, Urgency urgency,
                const QStringList& actions = {});

    // The service's id of the notification of `kind` on screen, 0 if none.
    uint idOf(Kind kind) const { return ids.value(kind, 0); }

signals:
    // The user chose `action` on our notification of `kind`.
    void actionInvoked(int kind, const QString& action);

private slots:
    void onActionInvoked(uint id, const QString& action);
    void onClosed(uint id, uint reason);

private:
    struct Request {
        QString summary;
        QString body;
        Urgency urgency = Normal;
        QStringList actions;
    };

    void send(int kind, const Request& request);
    void replied(int kind, QDBusPendingCallWatcher* call, const Request& request);
    int kindOf(uint id) const;

    QSystemTrayIcon* fallback;
    QMap<int, uint> ids; // kind -> the service's id
    QMap<int, Request> waiting; // kind -> the request sent when the answer comes
    QSet<int> sent;             // kinds whose Notify awaits its answer
};

#endif
