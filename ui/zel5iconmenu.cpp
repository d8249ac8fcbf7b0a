// The tray icon's context menu and its "Traffic" summary of the account
// report.
#include "zel5icon.h"

#include "artwork.h"

#include <QAction>
#include <QCoreApplication>
#include <QEvent>
#include <QFont>
#include <QMenu>

namespace {

const char* const ApplicationTitle = "Orvane ZEL5 Tray";

// Names from the server are shown as they are: a '&' would otherwise turn
// into a keyboard accelerator and vanish from the text.
QString menuText(const std::string& utf8)
{
    QString text = QString::fromStdString(utf8);
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

// One traffic class: name, id and size in the report's unit. The values are
// substituted in one pass, so a name that contains "%4" stays as it is.
QString classLine(const MiniClient::TClassReport& report, double divisor)
{
    return QStringLiteral("    %1: %2 (%3), %4: %5 %6")
        .arg(ZEL5Icon::tr("Traffic Class"), menuText(report.name),
             QString::number(static_cast<qint64>(report.id)), ZEL5Icon::tr("Size"),
             QString::number(static_cast<double>(report.size) / divisor, 'f', 2),
             QStringLiteral("Mb"));
}

void addClassList(QMenu* menu, const QString& heading,
                  const std::vector<MiniClient::TClassReport>& list, double divisor)
{
    menu->addAction(heading);
    for (const MiniClient::TClassReport& report : list)
        menu->addAction(classLine(report, divisor));
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
    for (const MiniClient::ServiceReport& service : *reports) {
        addTitle(trafficMenu, QIcon(), tr("Service: ") + menuText(service.name));
        addClassList(trafficMenu, QStringLiteral("Old Prepaid:"), service.oldPrepaid, sizeDivisor);
        addClassList(trafficMenu, QStringLiteral("Prepaid:"), service.prepaid, sizeDivisor);
        addClassList(trafficMenu, QStringLiteral("Downloaded:"), service.downloaded, sizeDivisor);
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
