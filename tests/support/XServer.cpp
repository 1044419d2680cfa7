#include "support/XServer.h"

#include <xcb/xcb.h>

#include <QElapsedTimer>
#include <QThread>
#include <cstdlib>
#include <cstring>

namespace corvi::test {
namespace {

xcb_atom_t atom(xcb_connection_t* c, const char* name) {
    auto* reply =
        xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, static_cast<uint16_t>(strlen(name)), name), nullptr);
    const xcb_atom_t a = reply ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
    free(reply);
    return a;
}

// True when the root window names a live supporting WM check window.
bool hasWindowManager(const QString& display) {
    xcb_connection_t* c = xcb_connect(display.toLocal8Bit().constData(), nullptr);
    bool found = false;
    if (!xcb_connection_has_error(c)) {
        const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(c)).data->root;
        const xcb_atom_t check = atom(c, "_NET_SUPPORTING_WM_CHECK");
        auto* reply =
            xcb_get_property_reply(c, xcb_get_property(c, 0, root, check, XCB_ATOM_WINDOW, 0, 1), nullptr);
        if (reply && xcb_get_property_value_length(reply) == 4) {
            const xcb_window_t w = *static_cast<xcb_window_t*>(xcb_get_property_value(reply));
            auto* attrs = xcb_get_window_attributes_reply(c, xcb_get_window_attributes(c, w), nullptr);
            found = attrs != nullptr;
            free(attrs);
        }
        free(reply);
    }
    xcb_disconnect(c);
    return found;
}

// True when the window manager frames a freshly mapped window within timeoutMs. openbox
// announces itself before it manages windows; a window mapped in between is never shown.
bool framesNewWindows(const QString& display, int timeoutMs) {
    xcb_connection_t* c = xcb_connect(display.toLocal8Bit().constData(), nullptr);
    bool framed = false;
    if (!xcb_connection_has_error(c)) {
        const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(c)).data;
        const xcb_window_t w = xcb_generate_id(c);
        xcb_create_window(c, XCB_COPY_FROM_PARENT, w, screen->root, 0, 0, 10, 10, 0,
                          XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual, 0, nullptr);
        xcb_map_window(c, w);
        xcb_flush(c);
        QElapsedTimer clock;
        clock.start();
        while (!framed && clock.elapsed() < timeoutMs) {
            auto* tree = xcb_query_tree_reply(c, xcb_query_tree(c, w), nullptr);
            framed = tree && tree->parent != screen->root;
            free(tree);
            if (!framed) QThread::msleep(20);
        }
        xcb_destroy_window(c, w);
        xcb_flush(c);
    }
    xcb_disconnect(c);
    return framed;
}

void stop(std::unique_ptr<QProcess>& p) {
    if (!p) return;
    if (p->state() != QProcess::NotRunning) {
        p->terminate();
        if (!p->waitForFinished(3000)) {
            p->kill();
            p->waitForFinished(3000);
        }
    }
    p.reset();
}

}  // namespace

XServer::XServer(bool windowManager, int width, int height, const QStringList& serverArgs) {
    xvfb_ = std::make_unique<QProcess>();
    xvfb_->setProcessChannelMode(QProcess::SeparateChannels);
    QStringList args{QStringLiteral("-displayfd"),
                     QStringLiteral("1"),
                     QStringLiteral("-screen"),
                     QStringLiteral("0"),
                     QStringLiteral("%1x%2x24").arg(width).arg(height),
                     QStringLiteral("-nolisten"),
                     QStringLiteral("tcp"),
                     QStringLiteral("-noreset")};
    xvfb_->start(QStringLiteral("Xvfb"), args + serverArgs);
    if (!xvfb_->waitForStarted(5000)) return;
    QByteArray out;
    QElapsedTimer clock;
    clock.start();
    while (!out.contains('\n') && clock.elapsed() < 10000 && xvfb_->state() == QProcess::Running) {
        xvfb_->waitForReadyRead(200);
        out += xvfb_->readAllStandardOutput();
    }
    bool number = false;
    const int n = out.trimmed().toInt(&number);
    if (!number) return;
    const QString display = QStringLiteral(":%1").arg(n);

    if (windowManager) {
        wm_ = std::make_unique<QProcess>();
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("DISPLAY"), display);
        wm_->setProcessEnvironment(env);
        wm_->setStandardOutputFile(QProcess::nullDevice());
        wm_->setStandardErrorFile(QProcess::nullDevice());
        wm_->start(QStringLiteral("openbox"), {QStringLiteral("--sm-disable")});
        display_ = display;
        if (!wm_->waitForStarted(5000) || !waitForWindowManager(10000)) display_.clear();
    } else {
        display_ = display;
    }
}

XServer::~XServer() {
    stop(wm_);
    stop(xvfb_);
}

bool XServer::waitForWindowManager(int timeoutMs) {
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < timeoutMs) {
        if (hasWindowManager(display_) && framesNewWindows(display_, 500)) return true;
        QThread::msleep(20);
    }
    return false;
}

void XServer::stopWindowManager() {
    stop(wm_);
    QElapsedTimer clock;
    clock.start();
    while (hasWindowManager(display_) && clock.elapsed() < 5000) QThread::msleep(20);
}

void XServer::stopServer() {
    stop(wm_);
    stop(xvfb_);
}

}  // namespace corvi::test
