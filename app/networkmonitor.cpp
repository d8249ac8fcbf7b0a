#include "networkmonitor.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusVariant>

namespace {
const QString service = QStringLiteral("org.freedesktop.NetworkManager");
const QString path = QStringLiteral("/org/freedesktop/NetworkManager");
const QString interface = QStringLiteral("org.freedesktop.NetworkManager");

// NetworkManager's states: 10 asleep, 20 disconnected, 30 disconnecting.
// Unknown (0), connecting and every connected state are no reason to stay
// offline: only the server can tell whether it is reachable.
bool reachable(uint state)
{
    return state != 10 && state != 20 && state != 30;
}
} // namespace

NetworkMonitor::NetworkMonitor(const QDBusConnection& connection, QObject* parent)
    : QObject(parent), bus(connection)
{
    if (!bus.isConnected())
        return;
    // Older NetworkManager versions send StateChanged, newer ones only the
    // property change; both lead to the same state.
    bus.connect(service, path, interface, QStringLiteral("StateChanged"), this, SLOT(onStateChanged(uint)));
    bus.connect(service, path, QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("PropertiesChanged"),
                this, SLOT(onPropertiesChanged(QString, QVariantMap, QStringList)));

    // The first state comes without blocking the interface thread.
    QDBusMessage get = QDBusMessage::createMethodCall(service, path, QStringLiteral("org.freedesktop.DBus.Properties"),
                                                      QStringLiteral("Get"));
    get << interface << QStringLiteral("State");
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(get), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* w) {
        const QDBusPendingReply<QDBusVariant> reply = *w;
        w->deleteLater();
        if (!reply.isError())
            onStateChanged(reply.value().variant().toUInt());
    });
}

void NetworkMonitor::onStateChanged(uint state)
{
    const bool wasOnline = isOnline;
    isOnline = reachable(state);
    if (isOnline != wasOnline)
        emit onlineChanged(isOnline);
}

void NetworkMonitor::onPropertiesChanged(const QString& changedInterface, const QVariantMap& changed,
                                         const QStringList&)
{
    const auto state = changed.constFind(QStringLiteral("State"));
    if (changedInterface == interface && state != changed.constEnd())
        onStateChanged(state->toUInt());
}
