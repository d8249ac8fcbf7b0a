// The tray icon's context menu and its "Traffic" summary of the account
// report.
#include "zel5icon.h"

#include "artwork.h"
#include "reportformat.h"

#include <QAction>
#include <QCoreApplication>
#include <QEvent>
#include <QFont>
#include <QMenu>

namespace {

const char* const ApplicationTitle = "Orvane ZEL5 Tray";

// Names from the server are shown as they are: a '&' would otherwise turn
// into a keyboard accelerator and vanish from the text.
QString menuText(QString text)
{
    text.replace(QLatin1Char('&'), QStringLiteral("&&"));
    return text;
}

// A title row: a disabled bold item rather than a menu section, because
// sections lose their text when a StatusNotifier host draws the menu itself.
QAction* addTitle(QMenu* menu, const QIcon& icon, const QString& text)
{
    QAction* title = menu->addAction(icon, text);
    title->setEnabled(false);
    QFont font = title->font();
    font.setBold(true);
    title->setFont(font);
    return title;
}

} // namespace

void ZEL5Icon::buildMenu()
{
    if (contextMenu)
        return;
    contextMenu = new QMenu;
    trafficMenu = new QMenu;
    titleItem = addTitle(contextMenu, Artwork::themeIcon(QStringLiteral("zel5_tray")),
                         QString::fromLatin1(ApplicationTitle));

    auto addItem = [this](int id, const QIcon& icon, void (ZEL5Icon::*signal)()) {
        QAction* item = contextMenu->addAction(icon, QString());
        item->setData(id);
        connect(item, &QAction::triggered, this, signal);
        items.insert(id, item);
    };
    addItem(idSwitchInternet, QIcon(), &ZEL5Icon::switchInternetSelected);
    QAction* traffic = contextMenu->addMenu(trafficMenu);
    traffic->setData(int(idTraffic));
    items.insert(idTraffic, traffic);
    addItem(idWeb, QIcon(), &ZEL5Icon::ZELAtWebSelected);
    addItem(idMessages, QIcon(), &ZEL5Icon::viewMessagesSelected);
    contextMenu->addSeparator();
    addItem(idConfigure, Artwork::themeIcon(QStringLiteral("configure")),
            &ZEL5Icon::configureAppSelected);
    addItem(idAbout, Artwork::themeIcon(QStringLiteral("help")), &ZEL5Icon::viewAboutSelected);
    contextMenu->addSeparator();
    // Ending the event loop lets the application save and log off cleanly.
    quitItem = contextMenu->addAction(QIcon::fromTheme(QStringLiteral("application-exit")),
                                      QString());
    connect(quitItem, &QAction::triggered, qApp, &QCoreApplication::quit);

    connect(contextMenu, &QMenu::aboutToShow, this,
            [this] { contextMenuAboutToShow(contextMenu); });
    contextMenu->installEventFilter(this);
    retranslate();
    setContextMenu(contextMenu);
}

void ZEL5Icon::contextMenuAboutToShow(QMenu* /*menu*/)
{
    // The controller refreshes the report while this signal is handled.
    emit menuAboutToShow();
    rebuildTrafficMenu();
}

void ZEL5Icon::rebuildTrafficMenu()
{
    if (!trafficMenu)
        return;
    trafficMenu->clear();
    if (!reports)
        return;
    for (const QStringList& service : reportServiceLines(*reports, sizeDivisor)) {
        addTitle(trafficMenu, QIcon(), menuText(service.first()));
        for (qsizetype i = 1; i < service.size(); ++i)
            trafficMenu->addAction(menuText(service.at(i)));
    }
}

bool ZEL5Icon::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == contextMenu && event->type() == QEvent::LanguageChange)
        retranslate();
    return QSystemTrayIcon::eventFilter(watched, event);
}

void ZEL5Icon::retranslate()
{
    if (!contextMenu)
        return;
    QString switchText = tr("Switch Internet On/Off");
    if (online)
        switchText = internetOn ? tr("Switch Internet Off") : tr("Switch Internet On");
    items.value(idSwitchInternet)->setText(switchText);
    items.value(idTraffic)->setText(tr("Traffic"));
    items.value(idWeb)->setText(tr("ZEL @ Web"));
    items.value(idMessages)->setText(tr("Messages"));
    items.value(idConfigure)->setText(tr("Configure ZEL5 Tray..."));
    items.value(idAbout)->setText(tr("About"));
    quitItem->setText(tr("Quit"));
}
