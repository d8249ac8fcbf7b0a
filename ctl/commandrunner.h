// Runs one of zel5ctl's commands other than waybar: asks the tray when one
// runs, else logs in itself, prints the result and gives the exit code.
#ifndef ZEL5_CTL_COMMANDRUNNER_H
#define ZEL5_CTL_COMMANDRUNNER_H

#include "backend.h"
#include "commandline.h"

#include <memory>

class CommandRunner {
public:
    // How long zel5ctl waits for the message store's lock.
    static constexpr int lockWaitMs = 5000;

    explicit CommandRunner(const CommandLine& command) : command(command) {}
    int run();

    // The tray when it runs, else a session of zel5ctl's own with the
    // tray's settings; nullptr with the reason when neither is possible.
    static std::unique_ptr<Backend> openBackend(Failure& why);

private:
    int status(Backend& backend);
    int report(Backend& backend);
    int messages(Backend& backend);
    int switchInternet(Backend& backend);

    const CommandLine command;
};

#endif
