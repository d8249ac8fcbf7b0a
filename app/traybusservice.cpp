#include "traybusservice.h"

#include "messagecollector.h"
#include "messagesjson.h"
#include "reportformat.h"
#include "zel5trayapp.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QJsonDocument>
#include <QMetaObject>
#include <QStringList>

const char* const TrayBusService::serviceName = "net.orvane.Zel5Tray";
const char* const TrayBusService::objectPath = "/net/orvane/Zel5Tray";
const char* const TrayBusService::interfaceName = "net.orvane.Zel5Tray.Account";

TrayBusService::TrayBusService(ZEL5TrayApp* a) : QObject(a), app(a)
{
    connect(app, &ZEL5TrayApp::stateChanged, this, &TrayBusService::stateChanged);
}

bool TrayBusService::registerOnBus()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return false;
    if (!bus.registerObject(QString::fromLatin1(objectPath), this,
                            QDBusConnection::ExportScriptableSlots | QDBusConnection::ExportAllProperties))
        return false;
    if (!bus.registerService(QString::fromLatin1(serviceName))) {
        bus.unregisterObject(QString::fromLatin1(objectPath));
        return false;
    }
    published = snapshot();
    publishedRefreshes = app->refreshCount();
    return true;
}

bool TrayBusService::online() const { return app->account().connected; }
bool TrayBusService::internetOn() const { return app->account().connected && app->account().internetStatus != 0; }
double TrayBusService::balance() const { return app->account().balance; }
uint TrayBusService::messageCount() const { return app->store() ? uint(app->store()->count()) : 0u; }
bool TrayBusService::newMessages() const { return app->newMessagesSignalled(); }
qlonglong TrayBusService::lastRefresh() const { return app->lastRefreshTime(); }

QString TrayBusService::report() const
{
    const QJsonObject json = reportJson(app->report(), app->account().sizeDivisor);
    return QString::fromUtf8(QJsonDocument(json).toJson(QJsonDocument::Compact));
}

QString TrayBusService::Messages() const
{
    if (!app->store())
        return QStringLiteral("[]");
    return QString::fromUtf8(QJsonDocument(messagesJson(*app->store())).toJson(QJsonDocument::Compact));
}

// Queued: a method call returns before a dialog runs or a request starts.
void TrayBusService::Refresh() { QMetaObject::invokeMethod(app, "refreshNow", Qt::QueuedConnection); }
void TrayBusService::SwitchInternet() { QMetaObject::invokeMethod(app, "changeInternetStatus", Qt::QueuedConnection); }
void TrayBusService::ShowMessages() { QMetaObject::invokeMethod(app, "showMessages", Qt::QueuedConnection); }
void TrayBusService::ShowSettings() { QMetaObject::invokeMethod(app, "showSettings", Qt::QueuedConnection); }
void TrayBusService::ShowAccount() { QMetaObject::invokeMethod(app, "showAccount", Qt::QueuedConnection); }

QVariantMap TrayBusService::snapshot() const
{
    return {{QStringLiteral("Online"), online()},
            {QStringLiteral("InternetOn"), internetOn()},
            {QStringLiteral("Balance"), balance()},
            {QStringLiteral("MessageCount"), messageCount()},
            {QStringLiteral("NewMessages"), newMessages()},
            {QStringLiteral("Report"), report()},
            {QStringLiteral("LastRefresh"), lastRefresh()}};
}

void TrayBusService::stateChanged()
{
    if (publishQueued)
        return;
    publishQueued = true;
    QMetaObject::invokeMethod(this, &TrayBusService::publish, Qt::QueuedConnection);
}

void TrayBusService::publish()
{
    publishQueued = false;
    const QVariantMap now = snapshot();
    QVariantMap changed;
    for (auto it = now.begin(); it != now.end(); ++it) {
        if (published.value(it.key()) != it.value())
            changed.insert(it.key(), it.value());
    }
    published = now;
    // A completed refresh is news even within the second of the last one:
    // who called Refresh() learns from it that the values are current.
    if (app->refreshCount() != publishedRefreshes)
        changed.insert(QStringLiteral("LastRefresh"), lastRefresh());
    publishedRefreshes = app->refreshCount();
    if (changed.isEmpty())
        return;
    QDBusMessage signal = QDBusMessage::createSignal(QString::fromLatin1(objectPath),
                                                     QStringLiteral("org.freedesktop.DBus.Properties"),
                                                     QStringLiteral("PropertiesChanged"));
    signal << QString::fromLatin1(interfaceName) << changed << QStringList();
    QDBusConnection::sessionBus().send(signal);
}
