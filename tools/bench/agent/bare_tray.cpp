// The yardstick for the agent's memory: a Qt tray program with an icon and a menu, nothing else.
#include <QApplication>
#include <QMenu>
#include <QPixmap>
#include <QSystemTrayIcon>

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    QPixmap pixmap(35, 18);
    pixmap.fill(Qt::darkGray);
    QMenu menu;
    menu.addAction(QStringLiteral("Quit"), &app, &QCoreApplication::quit);
    QSystemTrayIcon tray{QIcon(pixmap)};
    tray.setContextMenu(&menu);
    tray.show();
    return app.exec();
}
