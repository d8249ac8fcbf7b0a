#include "testapp.h"

#include "miniclient.h"
#include "trytoconnectthread.h"

#include <QDeadlineTimer>
#include <QDialog>

TestApp::TestApp()
{
    // Each test is a fresh program run.
    firstTimeConnect = true;
}

TestApp::~TestApp()
{
    deinit();
    if (thread) {
        thread->wait();
        delete thread;
    }
    // Left behind by a shut-down that found an attempt still running.
    delete _miniClient;
    _miniClient = nullptr;
    if (_app == this)
        _app = nullptr;
}

bool TestApp::waitForWorker(int timeoutMs)
{
    return thread->wait(QDeadlineTimer(timeoutMs)) && !thread->busy();
}

int TestApp::runDialog(QDialog& dialog)
{
    dialogs << QString::fromLatin1(dialog.metaObject()->className());
    return answer ? answer(dialog) : QDialog::Rejected;
}

void TestApp::customEvent(QEvent* event)
{
    if (event->type() == TryToConnectThread::ConnectedEvent)
        ++connectedEvents;
    ZEL5TrayApp::customEvent(event);
}
