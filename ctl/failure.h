// Why a zel5ctl command failed: its exit code and the one line that tells
// the user, in their words, what went wrong. The exit codes are part of the
// program's interface (see --help and the README).
#ifndef ZEL5_CTL_FAILURE_H
#define ZEL5_CTL_FAILURE_H

#include <QString>

class Failure {
public:
    enum Code {
        Ok = 0,
        BadCommandLine = 1,
        IncompleteSettings = 2,
        BadAddress = 3,
        LoginRefused = 4,
        Unreachable = 5,   // no connection, or no answer within the bounds
        Failed = 6,        // protocol error, failed call, store or settings not written
    };

    Failure() = default;
    Failure(Code code, const QString& message) : code(code), message(message) {}

    // A connect step's result and the client's lastError after it.
    static Failure fromConnect(int result, int error, const QString& address, int port);
    // A call of an open session that failed; elapsedMs is how long the
    // whole request took, callBoundMs the client's bound of one call.
    static Failure fromCall(qint64 elapsedMs, int callBoundMs, const QString& address, int port);

    bool failed() const { return code != Ok; }

    Code code = Ok;
    QString message; // without the program's name
};

#endif
