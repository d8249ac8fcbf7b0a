// What zel5ctl prints for each command, as text and as JSON. Text uses the
// tray's own words; JSON is for scripts and keeps the values unformatted.
#ifndef ZEL5_CTL_OUTPUT_H
#define ZEL5_CTL_OUTPUT_H

#include "accountstate.h"
#include "backend.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QString>

class Output {
public:
    // "Internet: on|off", "Balance: 12.30", "Messages: 3"; offline
    // "Offline" in place of the first two.
    static QString statusText(const AccountState& state);
    // {"online", "internet", "balance" (null when offline), "messages"}
    static QJsonObject statusJson(const AccountState& state);
    static QString internetText(bool on);
    static QString balanceText(double balance);
    // The lines of the tray's "Traffic" submenu.
    static QString reportText(const Backend::Report& report);
    static QJsonObject reportJson(const Backend::Report& report);
    // Per message its date and subject on one line, then the body as
    // plain text; an empty line between messages.
    static QString messagesText(const QJsonArray& messages);
    // Indented, ending in a line break.
    static QString json(const QJsonValue& value);
};

#endif
