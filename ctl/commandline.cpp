#include "commandline.h"

#include <QHash>

namespace {

const QHash<QString, CommandLine::Command>& commands()
{
    static const QHash<QString, CommandLine::Command> names{
        {QStringLiteral("status"), CommandLine::Status},
        {QStringLiteral("report"), CommandLine::Report},
        {QStringLiteral("messages"), CommandLine::Messages},
        {QStringLiteral("switch-internet"), CommandLine::SwitchInternet},
        {QStringLiteral("waybar"), CommandLine::Waybar},
        {QStringLiteral("help"), CommandLine::Help},
    };
    return names;
}

} // namespace

bool CommandLine::parse(const QStringList& arguments, QString& error)
{
    bool optionsEnd = false;
    for (qsizetype i = 0; i < arguments.size(); ++i) {
        const QString& arg = arguments.at(i);
        if (!optionsEnd && arg == QLatin1String("--")) {
            optionsEnd = true;
        } else if (!optionsEnd && arg.startsWith(QLatin1Char('-')) && arg.size() > 1) {
            // "--name=value", or "--format value" for the one option with a value.
            const qsizetype eq = arg.indexOf(QLatin1Char('='));
            QString name = eq < 0 ? arg : arg.left(eq);
            QString value = eq < 0 ? QString() : arg.mid(eq + 1);
            bool hasValue = eq >= 0;
            if (name == QLatin1String("--format") && !hasValue && i + 1 < arguments.size()) {
                value = arguments.at(++i);
                hasValue = true;
            }
            if (!takeOption(name, value, hasValue, error))
                return false;
        } else if (command == None) {
            command = commands().value(arg, None);
            if (command == None) {
                error = QStringLiteral("unknown command \"%1\"").arg(arg);
                return false;
            }
        } else {
            error = QStringLiteral("unexpected argument \"%1\"").arg(arg);
            return false;
        }
    }
    // Help and version win over whatever else was given.
    if (command == Help || command == Version)
        return true;
    if (command == None) {
        error = QStringLiteral("no command given");
        return false;
    }
    return optionAllowed(error);
}

bool CommandLine::takeOption(const QString& name, const QString& value, bool hasValue, QString& error)
{
    const bool takesValue = name == QLatin1String("--format");
    if (hasValue && !takesValue) {
        error = QStringLiteral("option %1 takes no value").arg(name);
        return false;
    }
    if (name == QLatin1String("-h") || name == QLatin1String("--help")) {
        command = Help;
    } else if (name == QLatin1String("-V") || name == QLatin1String("--version")) {
        if (command != Help)
            command = Version;
    } else if (name == QLatin1String("--json")) {
        json = true;
    } else if (name == QLatin1String("--once")) {
        once = true;
    } else if (takesValue) {
        if (value != QLatin1String("json") && value != QLatin1String("text")) {
            error = QStringLiteral("--format takes \"json\" or \"text\"");
            return false;
        }
        plainText = value == QLatin1String("text");
    } else {
        error = QStringLiteral("unknown option %1").arg(name);
        return false;
    }
    return true;
}

bool CommandLine::optionAllowed(QString& error) const
{
    const QString name = commands().key(command);
    if (json && command != Status && command != Report && command != Messages) {
        error = QStringLiteral("%1 does not take --json").arg(name);
        return false;
    }
    if ((once || plainText) && command != Waybar) {
        error = QStringLiteral("%1 does not take %2").arg(name, once ? QStringLiteral("--once") : QStringLiteral("--format"));
        return false;
    }
    return true;
}

QString CommandLine::helpText()
{
    return QStringLiteral(
        "Usage: zel5ctl COMMAND [OPTIONS]\n"
        "The billing account of Orvane ZEL5 Tray on the command line. With the tray\n"
        "running, zel5ctl asks the tray over D-Bus; without it, zel5ctl logs in\n"
        "itself with the tray's settings and keeps new messages in the tray's store.\n"
        "\n"
        "Commands:\n"
        "  status [--json]           online or offline, internet on or off, balance,\n"
        "                            number of stored messages\n"
        "  report [--json]           traffic per service and traffic class\n"
        "  messages [--json]         fetch new messages, then list the stored ones\n"
        "  switch-internet           switch the internet access on or off and print\n"
        "                            the new state\n"
        "  waybar [--once] [--format json|text]\n"
        "                            one line per change of the account's state, for\n"
        "                            status bars: Waybar's JSON (default) or plain\n"
        "                            text (Polybar); --once prints one line and ends\n"
        "\n"
        "Options:\n"
        "  -h, --help                show this help\n"
        "  -V, --version             show the version\n"
        "\n"
        "Exit codes:\n"
        "  0  success\n"
        "  1  bad command line\n"
        "  2  settings incomplete (set them in the tray)\n"
        "  3  the server address cannot be resolved\n"
        "  4  login refused\n"
        "  5  the billing server (or the tray) cannot be reached or did not answer in time\n"
        "  6  protocol error, failed call, or the message store locked or not writable\n");
}
