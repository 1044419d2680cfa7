// A real Wayland client window for the compositor tests: `--app-id ID --title TITLE`; each
// line on stdin becomes the new title, and stdin closing ends the program.
#include <unistd.h>
#include <QCommandLineParser>
#include <QGuiApplication>
#include <QPainter>
#include <QRasterWindow>
#include <QSocketNotifier>

namespace {

class Window : public QRasterWindow {
  protected:
    void paintEvent(QPaintEvent*) override { QPainter(this).fillRect(QRect(QPoint(), size()), Qt::darkCyan); }
};

}  // namespace

int main(int argc, char** argv) {
    QGuiApplication app(argc, argv);
    QCommandLineParser parser;
    parser.addOption({QStringLiteral("app-id"), QStringLiteral("xdg app ID"), QStringLiteral("id")});
    parser.addOption({QStringLiteral("title"), QStringLiteral("window title"), QStringLiteral("title")});
    parser.process(app);
    QGuiApplication::setDesktopFileName(parser.value(QStringLiteral("app-id")));

    Window window;
    window.setTitle(parser.value(QStringLiteral("title")));
    window.resize(320, 200);
    window.show();

    QByteArray pending;
    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, [&] {
        char buffer[4096];
        const ssize_t n = read(STDIN_FILENO, buffer, sizeof buffer);
        if (n <= 0) {
            QCoreApplication::quit();
            return;
        }
        pending.append(buffer, n);
        for (qsizetype end; (end = pending.indexOf('\n')) >= 0; pending.remove(0, end + 1))
            window.setTitle(QString::fromUtf8(pending.left(end)));
    });
    return app.exec();
}
