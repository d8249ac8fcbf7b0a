#include "desktopnotifier.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QGuiApplication>
#include <QSystemTrayIcon>
#include <QVariantMap>

namespace {
const char* const service = "org.freedesktop.Notifications";
const char* const path = "/org/freedesktop/Notifications";
const char* const interface = "org.freedesktop.Notifications";
}

DesktopNotifier::DesktopNotifier(QSystemTrayIcon* fb, QObject* parent) : QObject(parent), fallback(fb)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return;
    bus.connect(QString::fromLatin1(service), QString::fromLatin1(path), QString::fromLatin1(interface),
                QStringLiteral("ActionInvoked"), this, SLOT(onActionInvoked(uint, QString)));
    bus.connect(QString::fromLatin1(service), QString::fromLatin1(path), QString::fromLatin1(interface),
                QStringLiteral("NotificationClosed"), this, SLOT(onClosed(uint, uint)));
}

void DesktopNotifier::notify(Kind kind, const QString& summary, const QString& body, Urgency urgency,
                             const QStringList& actions)
{
    const Request request{summary, body, urgency, actions};
    if (!QDBusConnection::sessionBus().isConnected()) {
        if (fallback)
            fallback->showMessage(summary, body);
        return;
    }
    // The id to replace is only known from the answer to the last one.
    if (sent.contains(kind))
        waiting.insert(kind, request);
    else
        send(kind, request);
}

void DesktopNotifier::send(int kind, const Request& request)
{
    QDBusMessage call = QDBusMessage::createMethodCall(QString::fromLatin1(service), QString::fromLatin1(path),
                                                       QString::fromLatin1(interface), QStringLiteral("Notify"));
    QVariantMap hints;
    hints.insert(QStringLiteral("desktop-entry"), QGuiApplication::desktopFileName());
    hints.insert(QStringLiteral("urgency"), QVariant::fromValue(static_cast<uchar>(request.urgency)));
    // replaces_id keeps one notification of each kind on screen.
    call << QGuiApplication::applicationDisplayName() << ids.value(kind, 0u) << QStringLiteral("zel5_tray")
         << request.summary << request.body << request.actions << hints << qint32(-1);
    sent.insert(kind);
    auto* watcher = new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this, kind, request](QDBusPendingCallWatcher* w) { replied(kind, w, request); });
}

void DesktopNotifier::replied(int kind, QDBusPendingCallWatcher* watcher, const Request& request)
{
    watcher->deleteLater();
    sent.remove(kind);
    QDBusPendingReply<uint> reply = *watcher;
    if (reply.isError()) {
        // No notification service on this desktop: the tray's own balloon.
        ids.remove(kind);
        if (fallback)
            fallback->showMessage(request.summary, request.body);
    } else {
        ids.insert(kind, reply.value());
    }
    if (waiting.contains(kind))
        send(kind, waiting.take(kind));
}

int DesktopNotifier::kindOf(uint id) const
{
    for (auto it = ids.begin(); it != ids.end(); ++it) {
        if (it.value() == id && id != 0)
            return it.key();
    }
    return -1;
}

void DesktopNotifier::onActionInvoked(uint id, const QString& action)
{
    // Every program's notifications are signalled on the bus; only ours count.
    const int kind = kindOf(id);
    if (kind >= 0)
        emit actionInvoked(kind, action);
}

void DesktopNotifier::onClosed(uint id, uint)
{
    const int kind = kindOf(id);
    if (kind >= 0)
        ids.remove(kind);
}
