#include "failure.h"

#include "miniclient.h"

#include <cstring>

namespace {
// errno values of the protocol library's login: the server refused the
// login, or what answered does not speak the billing protocol.
constexpr int loginRefused = 13; // EACCES
constexpr int notTheProtocol = 74; // EBADMSG

QString server(const QString& address, int port)
{
    return QStringLiteral("%1:%2").arg(address).arg(port);
}
}

Failure Failure::fromConnect(int result, int error, const QString& address, int port)
{
    switch (result) {
    case MiniClient::rcOk:
        return Failure();
    case MiniClient::rcIncompleteSettings:
        return Failure(IncompleteSettings,
                       QStringLiteral("the settings are incomplete: set the server, port, login and password "
                                      "in the tray's settings"));
    case MiniClient::rcBadAddress:
        return Failure(BadAddress, QStringLiteral("cannot resolve the server address \"%1\": check the server "
                                                  "in the tray's settings")
                                       .arg(address));
    default:
        break;
    }
    if (result == MiniClient::rcSessionFailed && error == loginRefused)
        return Failure(LoginRefused,
                       QStringLiteral("login refused: check the login and password in the tray's settings"));
    if (result == MiniClient::rcSessionFailed && error == notTheProtocol)
        return Failure(Failed, QStringLiteral("%1 is not a billing server: check the server and port in the "
                                              "tray's settings")
                                   .arg(server(address, port)));
    // Refused connections, time-outs, no route: nothing billing-like answered.
    QString reason = error ? QString::fromLocal8Bit(std::strerror(error)) : QStringLiteral("no answer");
    if (!reason.isEmpty())
        reason[0] = reason.at(0).toLower();
    return Failure(Unreachable,
                   QStringLiteral("the billing server %1 cannot be reached: %2").arg(server(address, port), reason));
}

Failure Failure::fromCall(qint64 elapsedMs, int callBoundMs, const QString& address, int port)
{
    // The client does not say why a call failed; a failure that came no
    // sooner than a call's bound is the bound passing.
    if (elapsedMs >= callBoundMs)
        return Failure(Unreachable, QStringLiteral("the billing server %1 did not answer within %2 s")
                                        .arg(server(address, port))
                                        .arg(callBoundMs / 1000));
    return Failure(Failed, QStringLiteral("the billing server %1 broke off the exchange").arg(server(address, port)));
}
