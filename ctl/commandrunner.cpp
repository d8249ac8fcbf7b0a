#include "commandrunner.h"

#include "config.h"
#include "console.h"
#include "directbackend.h"
#include "output.h"
#include "traybackend.h"

#include <QDBusConnection>

std::unique_ptr<Backend> CommandRunner::openBackend(Failure& why)
{
    const QDBusConnection bus = QDBusConnection::sessionBus();
    if (TrayBackend::running(bus))
        return std::make_unique<TrayBackend>(bus);
    Config<QString> settings;
    if (!settings._load()) {
        why = Failure::fromConnect(MiniClient::rcIncompleteSettings, 0, QString(), 0);
        return nullptr;
    }
    return std::make_unique<DirectBackend>(settings, lockWaitMs);
}

int CommandRunner::run()
{
    Failure why;
    const std::unique_ptr<Backend> backend = openBackend(why);
    if (!backend)
        return Console::fail(why);
    switch (command.command) {
    case CommandLine::Status:
        return status(*backend);
    case CommandLine::Report:
        return report(*backend);
    case CommandLine::Messages:
        return messages(*backend);
    case CommandLine::SwitchInternet:
        return switchInternet(*backend);
    default:
        return Console::fail(Failure(Failure::BadCommandLine, QStringLiteral("no such command")));
    }
}

int CommandRunner::status(Backend& backend)
{
    AccountState state;
    if (!backend.refresh(state))
        return Console::fail(backend.failure());
    // Offline is a state worth printing, and a failure worth its exit code.
    Console::out(command.json ? Output::json(Output::statusJson(state)) : Output::statusText(state));
    return state.online ? Failure::Ok : Console::fail(backend.failure());
}

int CommandRunner::report(Backend& backend)
{
    Backend::Report report;
    if (!backend.report(report))
        return Console::fail(backend.failure());
    Console::out(command.json ? Output::json(Output::reportJson(report)) : Output::reportText(report));
    return Failure::Ok;
}

int CommandRunner::messages(Backend& backend)
{
    AccountState state;
    if (!backend.refresh(state))
        return Console::fail(backend.failure());
    // Offline the stored messages are still listed.
    const Failure offline = state.online ? Failure() : backend.failure();
    QJsonArray list;
    if (!backend.storedMessages(list))
        return Console::fail(offline.failed() ? offline : backend.failure());
    Console::out(command.json ? Output::json(list) : Output::messagesText(list));
    return offline.failed() ? Console::fail(offline) : Failure::Ok;
}

int CommandRunner::switchInternet(Backend& backend)
{
    AccountState state;
    const bool switched = backend.switchInternet(state);
    // A switch the server refused still shows the state it left.
    if (state.online)
        Console::out(Output::internetText(state.internetOn) + QLatin1Char('\n'));
    return switched ? Failure::Ok : Console::fail(backend.failure());
}
