#include "desktopstandins.h"

#include <QCoreApplication>
#include <QDBusConnectionInterface>
#include <QDBusError>

StandIn::StandIn(const QString& a, const QString& name, const QString& s, const QString& p)
    : address(a), connectionName(name), service(s), path(p)
{
}

StandIn::~StandIn()
{
    if (!connected)
        return;
    QDBusConnection bus = connection();
    bus.unregisterObject(path);
    bus.unregisterService(service);
    QDBusConnection::disconnectFromBus(connectionName);
}

QDBusConnection StandIn::connection() const
{
    return QDBusConnection(connectionName);
}

bool StandIn::start(QString* error)
{
    QDBusConnection bus = QDBusConnection::connectToBus(address, connectionName);
    connected = true; // a failed connection still has its name taken
    if (!bus.isConnected()) {
        *error = QStringLiteral("cannot connect to %1: %2").arg(address, bus.lastError().message());
        return false;
    }
    if (!bus.registerObject(path, this, QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals)) {
        *error = QStringLiteral("cannot export %1: %2").arg(path, bus.lastError().message());
        return false;
    }
    if (!claim()) {
        *error = QStringLiteral("cannot own %1: %2").arg(service, bus.lastError().message());
        return false;
    }
    return true;
}

bool StandIn::claim()
{
    return connection().registerService(service);
}

bool StandIn::release()
{
    return connection().unregisterService(service);
}

NotificationServer::NotificationServer(const QString& address)
    : StandIn(address, QStringLiteral("standin-notifications"), QStringLiteral("org.freedesktop.Notifications"),
              QStringLiteral("/org/freedesktop/Notifications"))
{
}

bool NotificationServer::reset()
{
    notifications.clear();
    closedByCall.clear();
    lastId = 0;
    return claim();
}

uint NotificationServer::Notify(const QString& appName, uint replacesId, const QString& appIcon,
                                const QString& summary, const QString& body, const QStringList& actions,
                                const QVariantMap& hints, int expireTimeout)
{
    const uint id = replacesId != 0 ? replacesId : ++lastId;
    notifications.append({appName, replacesId, appIcon, summary, body, actions, hints, expireTimeout, id});
    return id;
}

QStringList NotificationServer::GetCapabilities()
{
    return {QStringLiteral("actions"), QStringLiteral("body")};
}

QString NotificationServer::GetServerInformation(QString& vendor, QString& version, QString& protocolVersion)
{
    vendor = QStringLiteral("zel5 tests");
    version = QStringLiteral("1");
    protocolVersion = QStringLiteral("1.2");
    return QStringLiteral("stand-in notification server");
}

void NotificationServer::CloseNotification(uint id)
{
    closedByCall << id;
    emit NotificationClosed(id, 3);
}

LogindStandIn::LogindStandIn(const QString& address)
    : StandIn(address, QStringLiteral("standin-login1"), QStringLiteral("org.freedesktop.login1"),
              QStringLiteral("/org/freedesktop/login1"))
{
}

SleepSignals::SleepSignals()
{
    QDBusConnection::systemBus().connect(QStringLiteral("org.freedesktop.login1"), QStringLiteral("/org/freedesktop/login1"),
                                         QStringLiteral("org.freedesktop.login1.Manager"),
                                         QStringLiteral("PrepareForSleep"), this, SLOT(prepareForSleep(bool)));
}

void SleepSignals::deliverQueued()
{
    // The bus answers after every message it sent before; the tray's
    // connection has dispatched those when the answer is in.
    QDBusConnection::systemBus().interface()->isServiceRegistered(QStringLiteral("org.freedesktop.login1"));
    QCoreApplication::processEvents();
    QCoreApplication::sendPostedEvents();
}
