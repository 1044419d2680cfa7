// A plain Qt window for the Wayland fixtures: `corvi_wayland_window <app ID> <title>`; each
// line on stdin becomes its new title.
#include <unistd.h>

#include <QGuiApplication>
#include <QRasterWindow>
#include <QSocketNotifier>

int main(int argc, char** argv) {
    QGuiApplication app(argc, argv);
    if (argc < 3) return 2;
    // Qt's Wayland plugin sends this as the toplevel's app ID.
    QGuiApplication::setDesktopFileName(QString::fromUtf8(argv[1]));
    QRasterWindow window;
    window.setTitle(QString::fromUtf8(argv[2]));
    window.resize(320, 200);
    window.show();
    QByteArray pending;
    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, [&] {
        char buffer[4096];
        const ssize_t n = read(STDIN_FILENO, buffer, sizeof buffer);
        if (n <= 0) {
            input.setEnabled(false);
            return;
        }
        pending.append(buffer, n);
        for (qsizetype end; (end = pending.indexOf('\n')) >= 0; pending.remove(0, end + 1))
            window.setTitle(QString::fromUtf8(pending.left(end)));
    });
    return app.exec();
}
