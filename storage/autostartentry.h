// The "start on logon" entry: a desktop entry in the user's autostart folder
// ($XDG_CONFIG_HOME/autostart/zel5_tray.desktop) that the desktop session
// starts at logon. The setting "start_on_login" decides whether it exists.
#ifndef ZEL5_AUTOSTARTENTRY_H
#define ZEL5_AUTOSTARTENTRY_H

#include <QString>

class AutostartEntry {
public:
    // Where the entry lives; empty when there is no configuration folder.
    static QString path();

    // Brings the entry in line with the setting. enabled: writes the entry
    // that starts `program` (an absolute path) unless the same entry is
    // already there; the file is replaced whole or not at all. Not enabled:
    // removes the entry if there is one. False when that failed or `program`
    // cannot be started from an entry (not absolute, or holds a control
    // character); the reason then goes to *why when given.
    static bool apply(bool enabled, const QString& program, QString* why = nullptr);

    // The Exec value that starts `program` as the desktop entry format
    // wants it: quoted when it holds a space or a reserved character, with
    // the escapes of a quoted argument and of a string value. Empty when
    // `program` cannot be written there.
    static QString execValue(const QString& program);
};

#endif
