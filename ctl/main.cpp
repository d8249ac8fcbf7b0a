// zel5ctl: the tray's billing account on the command line, in scripts and
// in status bars. See CommandLine::helpText and the README.
#include "commandline.h"
#include "commandrunner.h"
#include "console.h"
#include "waybarfollower.h"

#include <QCoreApplication>

#include <cstdlib>

namespace {

// Qt's own warnings (a session bus that is not there, for one) would break
// the promise of one line on standard error per failure; ZEL5CTL_DEBUG
// shows them.
void quietMessages(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    static const bool debug = qEnvironmentVariableIsSet("ZEL5CTL_DEBUG");
    if (!debug && (type == QtDebugMsg || type == QtInfoMsg || type == QtWarningMsg))
        return;
    std::fprintf(stderr, "%s\n", qPrintable(qFormatLogMessage(type, context, message)));
    if (type == QtFatalMsg)
        std::abort();
}

} // namespace

int main(int argc, char** argv)
{
    qInstallMessageHandler(quietMessages);
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("zel5ctl"));
    QCoreApplication::setApplicationVersion(QStringLiteral(ZEL5_VERSION));

    CommandLine command;
    QString error;
    if (!command.parse(QCoreApplication::arguments().mid(1), error))
        return Console::fail(Failure(Failure::BadCommandLine, error + QStringLiteral("; see zel5ctl --help")));
    switch (command.command) {
    case CommandLine::Help:
        Console::out(CommandLine::helpText());
        return 0;
    case CommandLine::Version:
        Console::out(QStringLiteral("zel5ctl %1\n").arg(QCoreApplication::applicationVersion()));
        return 0;
    case CommandLine::Waybar:
        return WaybarFollower(command.once, command.plainText).run();
    default:
        return CommandRunner(command).run();
    }
}
