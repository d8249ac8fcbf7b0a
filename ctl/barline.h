// One line for a status bar from the account's state: Waybar's JSON for a
// custom module with "return-type": "json", or plain text (Polybar).
//
// Waybar: {"text", "tooltip", "class", "alt"}: the balance with 2 decimals
// (an em dash offline); "Balance: ...\nInternet: on|off" and the new
// messages (offline: "Offline" and why); the classes "offline",
// "internet-on" or "internet-off", then "low-balance" and "new-messages";
// alt the first class, for "format-icons".
#ifndef ZEL5_CTL_BARLINE_H
#define ZEL5_CTL_BARLINE_H

#include "accountstate.h"

#include <QJsonObject>
#include <QString>
#include <QStringList>

class BarLine {
public:
    // The settings' low balance level, when one is set.
    bool lowBalanceOn = false;
    double lowBalance = 0.0;
    // Why zel5ctl is offline, in the user's words; empty when not known.
    QString offlineReason;

    QStringList classes(const AccountState& state) const;
    QJsonObject waybar(const AccountState& state) const;
    // "12.30", "12.30 internet off", "offline"; " +N new messages" after it.
    QString text(const AccountState& state) const;
    // The line to print, without its line break.
    QString line(const AccountState& state, bool plainText) const;
};

#endif
