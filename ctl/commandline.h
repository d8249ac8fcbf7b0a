// zel5ctl's command line: one command and the options it takes, in any
// order. Parsed without Qt's parser so that every mistake gets one plain
// line and exit code 1, and so that the parsing can be tested alone.
#ifndef ZEL5_CTL_COMMANDLINE_H
#define ZEL5_CTL_COMMANDLINE_H

#include <QString>
#include <QStringList>

class CommandLine {
public:
    enum Command { None, Status, Report, Messages, SwitchInternet, Waybar, Help, Version };

    // The arguments after the program's name. false, with the reason in
    // `error`, when they are not a valid command line.
    bool parse(const QStringList& arguments, QString& error);

    static QString helpText();

    Command command = None;
    bool json = false;     // status, report, messages: --json
    bool once = false;     // waybar: --once
    bool plainText = false; // waybar: --format text

private:
    bool takeOption(const QString& name, const QString& value, bool hasValue, QString& error);
    bool optionAllowed(QString& error) const;
};

#endif
