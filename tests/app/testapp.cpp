#include "testapp.h"

#include "miniclient.h"
#include "trytoconnectthread.h"

#include <QDeadlineTimer>
#include <QDialog>

TestApp::~TestApp()
{
    deinit();
    thread->wait();
    delete thread;
    delete _miniClient;
    _miniClient = nullptr;
    if (_app == this)
        _app = nullptr;
}

bool TestApp::waitForWorker()
{
    return thread->wait(QDeadlineTimer(10000)) && !thread->busy();
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
