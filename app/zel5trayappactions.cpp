// The controller's slots that open a dialog or the billing web interface.
#include "zel5trayapp.h"

#include "aboutdialog.h"
#include "config.h"
#include "desktopnotifier.h"
#include "messagesdialog.h"
#include "miniclient.h"
#include "settingsdialog.h"
#include "trytoconnectthread.h"
#include "zel5icon.h"

#include <QCoreApplication>
#include <QDesktopServices>
#include <QTimer>
#include <QUrl>

namespace {
// Delay between dropping the session after a settings change and the new
// connection attempt.
const int reconnectDelayMs = 200;
}

int ZEL5TrayApp::runDialog(QDialog& dialog)
{
    // The tray icon is no widget and cannot be a parent: the dialogs block
    // the whole application instead.
    dialog.setWindowModality(Qt::ApplicationModal);
    return dialog.exec();
}

void ZEL5TrayApp::showNewMessages()
{
    if (!icon->notify)
        return;
    icon->setNotify(false);
    showMessages();
}

void ZEL5TrayApp::showMessages()
{
    if (messagesDialogOpen)
        return;
    MessagesDialog dialog(nullptr, nullptr, true);
    dialog.setMessageCollector(_messageCollector);
    int width = 0, height = 0;
    if (loadWindowSize(QStringLiteral("messages_dialog"), width, height))
        dialog.resize(width, height);
    // Messages retrieved meanwhile wait until the user is done with the
    // store, then arrive as after any retrieval.
    messagesDialogOpen = true;
    runDialog(dialog);
    messagesDialogOpen = false;
    if (dialog.wasShown() && dialog.size() != QSize(width, height))
        saveWindowSize(QStringLiteral("messages_dialog"), dialog.width(), dialog.height());
    storePendingMessages();
    emit stateChanged();
}

void ZEL5TrayApp::showAbout()
{
    AboutDialog dialog(nullptr, nullptr, true);
    runDialog(dialog);
}

void ZEL5TrayApp::showSettings()
{
    SettingsDialog dialog(nullptr, nullptr, true);
    dialog.importSettings(_cfg);
    if (runDialog(dialog) != QDialog::Accepted)
        return;

    const QString loginWas = _cfg->login, passwordWas = _cfg->password;
    dialog.exportSettings(_cfg);
    if (_cfg->login != loginWas || _cfg->password != passwordWas)
        loginRefusalTold = false;
    if (_cfg->saveSettings)
        _cfg->_save(true);
    applyAutostart();
    runTimer();
    // What runs or waits with the old settings is dropped, then the session.
    ++generation;
    thread->cancelAll();
    submit(TryToConnectThread::Disconnect);
    view.connected = false;
    displayUpdates(false);
    QTimer::singleShot(reconnectDelayMs, this, &ZEL5TrayApp::tryToConnect);
}

void ZEL5TrayApp::showZELAtWeb()
{
    const QString address = QStringLiteral("https://%1%2").arg(_cfg->webServerAddress, tr("/cgi-bin/zel5/aaa5"));
    if (QDesktopServices::openUrl(QUrl(address)) || !notifier)
        return;
    // Nothing on this desktop opens web addresses: give the address to copy.
    notifier->notify(DesktopNotifier::WebUnavailable, tr("Cannot open the web cabinet"),
                     tr("No program on this desktop opens web addresses. The cabinet is at %1").arg(address),
                     DesktopNotifier::Normal);
}
