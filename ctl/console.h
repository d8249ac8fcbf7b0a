// zel5ctl's output: results on standard output, flushed at once so that a
// status bar reading a pipe sees each line when it is made; failures as one
// line "zel5ctl: ..." on standard error.
#ifndef ZEL5_CTL_CONSOLE_H
#define ZEL5_CTL_CONSOLE_H

#include "failure.h"

#include <QString>

class Console {
public:
    // false when standard output is gone (the reader closed the pipe).
    static bool out(const QString& text);
    // Prints the failure and returns its exit code.
    static int fail(const Failure& failure);
};

#endif
