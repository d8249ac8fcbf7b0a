#include "traybackend.h"

#include "reportformat.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QEventLoop>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimer>

#include <algorithm>

namespace {

const QString propertiesInterface = QStringLiteral("org.freedesktop.DBus.Properties");
// The tray's methods return at once; its bus connection is all that can be slow.
constexpr int callTimeoutMs = 5000;

// The client's bounds, as the tray's worker uses them: a refresh of an open
// session is two calls; an offline tray first connects and logs in.
int refreshBoundMs(bool online)
{
    const MiniClient bounds;
    return online ? 2 * bounds.callTimeoutMs : bounds.connectTimeoutMs + bounds.loginTimeoutMs;
}

int switchBoundMs()
{
    // The switch, then the status read.
    return 2 * MiniClient().callTimeoutMs;
}

} // namespace

const QString TrayBackend::service = QStringLiteral("net.orvane.Zel5Tray");
const QString TrayBackend::path = QStringLiteral("/net/orvane/Zel5Tray");
const QString TrayBackend::interface = QStringLiteral("net.orvane.Zel5Tray.Account");

Failure TrayBackend::offlineFailure()
{
    return Failure(Failure::Unreachable, QStringLiteral("the tray has no session with the billing server; its "
                                                        "icon's tooltip tells why"));
}

bool TrayBackend::running(const QDBusConnection& bus)
{
    return bus.isConnected() && bus.interface() && bus.interface()->isServiceRegistered(service).value();
}

TrayBackend::TrayBackend(const QDBusConnection& b, QObject* parent) : QObject(parent), bus(b)
{
    // Following the well-known name keeps the subscription when the tray
    // is restarted.
    bus.connect(service, path, propertiesInterface, QStringLiteral("PropertiesChanged"), this,
                SLOT(onPropertiesChanged(QString, QVariantMap, QStringList)));
}

void TrayBackend::onPropertiesChanged(const QString& interfaceName, const QVariantMap& changedProperties,
                                      const QStringList& invalidated)
{
    if (interfaceName != interface)
        return;
    seen << changedProperties.keys() << invalidated;
    emit changed();
    if (!waiting)
        return;
    const bool done = awaited.isEmpty()
        || std::any_of(awaited.begin(), awaited.end(), [this](const QString& key) { return seen.contains(key); });
    if (done)
        waiting->quit();
}

bool TrayBackend::call(const QString& method, QVariant* result)
{
    QDBusMessage message = QDBusMessage::createMethodCall(service, path, interface, method);
    const QDBusMessage reply = bus.call(message, QDBus::Block, callTimeoutMs);
    if (reply.type() == QDBusMessage::ReplyMessage) {
        if (result)
            *result = reply.arguments().value(0);
        return true;
    }
    const QString error = reply.errorName();
    if (error == QLatin1String("org.freedesktop.DBus.Error.NoReply")
        || error == QLatin1String("org.freedesktop.DBus.Error.ServiceUnknown")
        || error == QLatin1String("org.freedesktop.DBus.Error.Disconnected"))
        return fail(Failure(Failure::Unreachable, QStringLiteral("the tray did not answer %1: %2")
                                                      .arg(method, reply.errorMessage())));
    return fail(Failure(Failure::Failed, QStringLiteral("the tray refused %1: %2").arg(method, reply.errorMessage())));
}

bool TrayBackend::properties(QVariantMap& values)
{
    QDBusMessage message = QDBusMessage::createMethodCall(service, path, propertiesInterface, QStringLiteral("GetAll"));
    message << interface;
    const QDBusMessage reply = bus.call(message, QDBus::Block, callTimeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage)
        return fail(Failure(Failure::Unreachable,
                            QStringLiteral("the tray did not tell its state: %1").arg(reply.errorMessage())));
    values = qdbus_cast<QVariantMap>(reply.arguments().value(0));
    return true;
}

bool TrayBackend::readState(AccountState& state)
{
    QVariantMap values;
    if (!properties(values))
        return false;
    state.online = values.value(QStringLiteral("Online")).toBool();
    state.internetOn = values.value(QStringLiteral("InternetOn")).toBool();
    state.balance = values.value(QStringLiteral("Balance")).toDouble();
    state.storedMessages = values.value(QStringLiteral("MessageCount")).toUInt();
    state.newMessages = values.value(QStringLiteral("NewMessages")).toBool();
    state.newCount = 0; // the tray tells only that there are some
    return true;
}

bool TrayBackend::callAndWait(const QString& method, const QStringList& keys, int ms)
{
    // Subscribed since construction, so a signal that follows the call at
    // once is not missed.
    seen.clear();
    awaited = keys;
    if (!call(method))
        return false;
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    waiting = &loop;
    const auto arrived = [this] {
        return awaited.isEmpty() ? !seen.isEmpty()
                                 : std::any_of(awaited.begin(), awaited.end(),
                                               [this](const QString& key) { return seen.contains(key); });
    };
    if (!arrived())
        loop.exec();
    waiting = nullptr;
    return true;
}

bool TrayBackend::refresh(AccountState& state)
{
    if (!readState(state))
        return false;
    // Whatever changes first tells that the refresh is over: a completed
    // one always moves LastRefresh.
    if (!callAndWait(QStringLiteral("Refresh"), {}, refreshBoundMs(state.online)) || !readState(state))
        return false;
    if (!state.online)
        fail(offlineFailure());
    return true;
}

bool TrayBackend::switchInternet(AccountState& state)
{
    if (!readState(state))
        return false;
    if (!state.online)
        return fail(offlineFailure());
    const bool before = state.internetOn;
    if (!callAndWait(QStringLiteral("SwitchInternet"), {QStringLiteral("InternetOn"), QStringLiteral("Online")},
                     switchBoundMs())
        || !readState(state))
        return false;
    if (!state.online)
        return fail(offlineFailure());
    if (state.internetOn == before)
        return fail(Failure(Failure::Unreachable, QStringLiteral("the tray did not report the switch within %1 s")
                                                      .arg(switchBoundMs() / 1000)));
    return true;
}

bool TrayBackend::report(Report& report)
{
    AccountState state;
    if (!refresh(state) || !state.online)
        return false;
    QVariantMap values;
    if (!properties(values))
        return false;
    const QString text = values.value(QStringLiteral("Report")).toString();
    // Before its first report the tray has none to give.
    if (text.isEmpty())
        return true;
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(text.toUtf8(), &parseError);
    QString error = parseError.errorString();
    if (!document.isObject() || !reportFromJson(document.object(), report.services, report.sizeDivisor, error))
        return fail(Failure(Failure::Failed, QStringLiteral("the tray's report is unreadable: %1").arg(error)));
    return true;
}

bool TrayBackend::storedMessages(QJsonArray& list)
{
    QVariant text;
    if (!call(QStringLiteral("Messages"), &text))
        return false;
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(text.toString().toUtf8(), &parseError);
    if (!document.isArray())
        return fail(Failure(Failure::Failed,
                            QStringLiteral("the tray's messages are unreadable: %1").arg(parseError.errorString())));
    list = document.array();
    return true;
}
