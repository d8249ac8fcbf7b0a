#include "uitest.h"

#include <QDeadlineTimer>
#include <QDialog>
#include <QEventLoop>
#include <QTimer>

bool waitFor(const std::function<bool()>& done, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    QEventLoop loop;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
        if (done() || deadline.hasExpired())
            loop.quit();
    });
    poll.start(5);
    if (!done())
        loop.exec();
    return done();
}

void runEventLoopFor(int periodMs)
{
    QEventLoop loop;
    QTimer::singleShot(periodMs, &loop, &QEventLoop::quit);
    loop.exec();
}

int execDialog(QDialog& dialog, const std::function<void()>& action, int timeoutMs)
{
    QTimer::singleShot(0, &dialog, action);
    // Showing first makes the close end the dialog's loop even when the
    // dialog hid itself without ending it.
    QTimer::singleShot(timeoutMs, &dialog, [&dialog] {
        dialog.show();
        dialog.done(-1);
    });
    return dialog.exec();
}
