// Helpers of the interface tests: finding widgets by name and running the
// event loop with a time limit.
#ifndef ZEL5_TESTS_UITEST_H
#define ZEL5_TESTS_UITEST_H

#include <QObject>
#include <QString>

#include <functional>

class QDialog;

template <class W>
W* child(const QObject* parent, const char* name)
{
    return parent->findChild<W*>(QString::fromLatin1(name));
}

// Runs the event loop until done() holds; false if timeoutMs passed first.
bool waitFor(const std::function<bool()>& done, int timeoutMs = 5000);

// Runs the event loop for periodMs, to see that something does not happen.
void runEventLoopFor(int periodMs);

// Runs the dialog modally and performs action once its loop runs; a dialog
// still open after timeoutMs is closed with the result -1.
int execDialog(QDialog& dialog, const std::function<void()>& action, int timeoutMs = 5000);

#endif
