// The floor of the tray's start-up and memory figures: the least a Qt 6
// program with a tray icon does. One QSystemTrayIcon with a drawn picture,
// a tooltip and a small menu, and nothing else: no settings, no store, no
// network, no D-Bus service of its own.
#include <QApplication>
#include <QMenu>
#include <QPainter>
#include <QPixmap>
#include <QSystemTrayIcon>

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);

    QPixmap picture(22, 22);
    picture.fill(Qt::transparent);
    {
        QPainter painter(&picture);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setBrush(QColor(0, 120, 200));
        painter.drawEllipse(2, 2, 18, 18);
    }

    QMenu menu;
    menu.addAction(QStringLiteral("Status"))->setEnabled(false);
    menu.addSeparator();
    QObject::connect(menu.addAction(QStringLiteral("Quit")), &QAction::triggered, &app, &QCoreApplication::quit);

    QSystemTrayIcon icon{QIcon(picture)};
    icon.setToolTip(QStringLiteral("Bare tray"));
    icon.setContextMenu(&menu);
    icon.show();
    return QApplication::exec();
}
