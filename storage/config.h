// The subscriber's settings in memory, read from and written to the INI file
// $XDG_CONFIG_HOME/zel5_trayrc.
#ifndef ZEL5_CONFIG_H
#define ZEL5_CONFIG_H

#include <QString>

template <class TString>
class Config {
public:
    Config();
    void init() {}
    // True only when every required key was present and valid. A failure at
    // a later step leaves the members read before it changed.
    bool _load();
    // full: the "network", "other" and "messages" groups; otherwise only
    // "last_message_check". Returns whether the file was written.
    bool _save(bool full);

    bool loaded;
    TString address;
    TString webServerAddress;
    int port;
    TString login;
    TString password;
    int lastMessageCheck;
    bool switchInternetOnStart;
    bool switchInternetOnExit;
    bool startOnLogin;
    bool saveSettings;
    int refreshRate;
    // Optional keys of "other": a balance below lowBalanceWarning is told
    // once per fall when lowBalanceWarningOn ("low_balance_warning", empty
    // or absent: off); notifications ("notifications", default on) allows
    // desktop notifications at all.
    bool lowBalanceWarningOn;
    double lowBalanceWarning;
    bool notifications;
};

extern template class Config<QString>;

// A window's size in the settings file, under a group of its own that the
// settings above never touch. false when none is stored or it is unusable.
bool loadWindowSize(const QString& window, int& width, int& height);
bool saveWindowSize(const QString& window, int width, int height);

#endif
