// The tray icon: four status pictures, blinking on new messages, the
// balance tooltip, and the context menu with its "Traffic" summary.
#ifndef ZEL5_ZEL5ICON_H
#define ZEL5_ZEL5ICON_H

#include "miniclient.h"

#include <QMap>
#include <QPixmap>
#include <QSet>
#include <QSystemTrayIcon>

class QAction;
class QEvent;
class QMenu;
class QTimerEvent;

class ZEL5Icon : public QSystemTrayIcon {
    Q_OBJECT
public:
    enum PixmapType {
        InternetOnPixmap = 0,
        InternetOffPixmap = 1,
        OfflinePixmap = 2,
        MessagePixmap = 3,
    };
    // Fixed ids of the context menu's items.
    enum MenuId {
        idSwitchInternet = 1,
        idTraffic = 2,
        idWeb = 3,
        idMessages = 4,
        idConfigure = 5,
        idAbout = 6,
    };

    ZEL5Icon();
    ~ZEL5Icon() override;

    // Shows the icon with its first picture, then builds the pictures and the
    // menu; the tray host docks the icon while the rest is built.
    void init();
    void buildPixmaps();
    void buildMenu();
    void drawRoundRect(const QColor& color, QPixmap& pixmap);

    void setOnlineStatus(bool on);
    void setInternetStatus(bool on);
    void setMessagesStatus(bool b);
    void setPixmap(PixmapType type, bool remember);
    void setNotify(bool b);
    void setTooltip(const QString& text);

    // Called before the context menu shows: lets the controller refresh the
    // report, then rebuilds the "Traffic" submenu.
    void contextMenuAboutToShow(QMenu* menu);
    // Fills the "Traffic" submenu from `reports`; the controller calls it
    // again when a report arrives, also while the menu is open.
    void rebuildTrafficMenu();

    // State, read by the controller and the tests.
    int currentPixmap = OfflinePixmap;
    bool blinkPhase = false;
    bool hasMessages = false;
    bool internetOn = false;
    bool online = false;
    bool notify = false;
    QPixmap pixmaps[4];
    const MiniClient::ServiceList* reports = nullptr;
    double sizeDivisor = 1.0;
    QMenu* trafficMenu = nullptr;

    QAction* menuItem(int id) const { return items.value(id, nullptr); }
    QMenu* menu() const { return contextMenu; }
    // The picture shown at the moment (a blink frame included).
    int shownPixmap() const { return shown; }

signals:
    void switchInternetSelected();
    void ZELAtWebSelected();
    void viewMessagesSelected();
    void configureAppSelected();
    void viewAboutSelected();
    void iconSelected();
    void menuAboutToShow();

protected:
    void timerEvent(QTimerEvent* e) override;
    // Sets the menu's texts again when the application's language changes.
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void showFirstPicture();
    void retranslate();
    void onActivated(QSystemTrayIcon::ActivationReason reason);

    QMenu* contextMenu = nullptr;
    QMap<int, QAction*> items;
    QAction* titleItem = nullptr;
    QAction* quitItem = nullptr;
    QSet<int> blinkTimers;
    int shown = OfflinePixmap;
};

#endif
