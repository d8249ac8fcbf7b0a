// Entry point of the tray program.
#include "singleinstance.h"
#include "zel5trayapp.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QLocale>
#include <QMetaObject>
#include <QSocketNotifier>
#include <QSystemTrayIcon>
#include <QTranslator>

#include <csignal>
#include <cstdio>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// How long a later start waits for the running tray to answer its request.
constexpr int notifyWaitMs = 1000;

// A termination signal is turned into a byte on this socket pair so that the
// event loop, not the signal handler, ends the program and settings and
// messages are saved as on "Quit".
int signalPipe[2] = {-1, -1};

void onTerminationSignal(int)
{
    const char byte = 1;
    [[maybe_unused]] const ssize_t written = ::write(signalPipe[1], &byte, 1);
}

// Sets `terminated` and ends the event loop on a termination signal. Before
// the main event loop runs a quit would be lost, so start-up checks the flag.
void quitOnTerminationSignals(QApplication& app, bool& terminated)
{
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, signalPipe) != 0)
        return;
    auto* notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, &app);
    QObject::connect(notifier, &QSocketNotifier::activated, &app, [&terminated] {
        char byte;
        [[maybe_unused]] const ssize_t got = ::read(signalPipe[0], &byte, 1);
        terminated = true;
        QCoreApplication::quit();
    });
    struct sigaction action = {};
    action.sa_handler = onTerminationSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        ::sigaction(sig, &action, nullptr);
}

} // namespace

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("zel5_tray"));
    QApplication::setApplicationDisplayName(QStringLiteral("Orvane ZEL5 Tray"));
    QApplication::setApplicationVersion(QStringLiteral("0.1"));
    QApplication::setDesktopFileName(QStringLiteral("zel5_tray"));
    // Closing a dialog must not end a program whose only window is the tray.
    QApplication::setQuitOnLastWindowClosed(false);

    // The catalogue of the user's language, where the program has one.
    QTranslator translator;
    if (translator.load(QLocale(), QStringLiteral("zel5_tray"), QStringLiteral("_"), QStringLiteral(":/i18n")))
        QApplication::installTranslator(&translator);

    QCommandLineParser parser;
    parser.addHelpOption();
    parser.addVersionOption();
    parser.process(app);

    // One tray per user: a later start asks the running one to show itself
    // and ends before it reads the settings or the message store or opens a
    // second session on the billing server.
    SingleInstance single;
    if (!single.tryToBecomePrimary()) {
        QString why;
        if (SingleInstance::notifyPrimary(notifyWaitMs, &why)) {
            std::fprintf(stderr, "zel5_tray: already running; asked it to show itself.\n");
            return 0;
        }
        if (!single.errorString().isEmpty())
            std::fprintf(stderr, "zel5_tray: %s\n", qPrintable(single.errorString()));
        std::fprintf(stderr, "zel5_tray: another zel5_tray is running, but %s\n", qPrintable(why));
        return 1;
    }
    if (!single.errorString().isEmpty())
        std::fprintf(stderr, "zel5_tray: %s\n", qPrintable(single.errorString()));
    // "Show" opens the messages dialog when new messages are signalled, as a
    // click on the icon does; queued, so that the request's answer goes out
    // before a dialog runs.
    QObject::connect(&single, &SingleInstance::showRequested, &app, [] {
        if (!QMetaObject::invokeMethod(ZEL5TrayApp::instance(), "showNewMessages", Qt::QueuedConnection))
            std::fprintf(stderr, "zel5_tray: cannot show the new messages\n");
    });

    bool terminated = false;
    quitOnTerminationSignals(app, terminated);
    // Without a tray host the program runs on; the icon shows when one starts.
    if (!QSystemTrayIcon::isSystemTrayAvailable())
        std::fprintf(stderr, "zel5_tray: no system tray found; the icon shows when one starts.\n");

    ZEL5TrayApp::instance()->init();
    const int result = terminated ? 0 : QApplication::exec();
    ZEL5TrayApp::instance()->deinit();
    return result;
}
