#include "support/XClient.h"

#include <xcb/xcb.h>
#include <xcb/xtest.h>

#include <QElapsedTimer>
#include <QThread>
#include <cstdlib>
#include <cstring>

namespace corvi::test {

struct XClient::Connection {
    xcb_connection_t* conn = nullptr;
    xcb_screen_t* screen = nullptr;
};

XClient::XClient(const QString& display) : c_(new Connection) {
    int screen = 0;
    c_->conn = xcb_connect(display.toLocal8Bit().constData(), &screen);
    if (xcb_connection_has_error(c_->conn)) return;
    xcb_screen_iterator_t it = xcb_setup_roots_iterator(xcb_get_setup(c_->conn));
    for (int i = 0; i < screen && it.rem; ++i) xcb_screen_next(&it);
    c_->screen = it.rem ? it.data : nullptr;
}

XClient::~XClient() {
    xcb_disconnect(c_->conn);
    delete c_;
}

bool XClient::ok() const {
    return c_->screen && !xcb_connection_has_error(c_->conn);
}

XClient::Window XClient::root() const {
    return c_->screen ? c_->screen->root : 0;
}

std::uint32_t XClient::atom(const char* name) {
    auto* reply = xcb_intern_atom_reply(
        c_->conn, xcb_intern_atom(c_->conn, 0, static_cast<uint16_t>(strlen(name)), name), nullptr);
    const xcb_atom_t a = reply ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
    free(reply);
    return a;
}

XClient::Window XClient::createWindow() {
    const xcb_window_t w = xcb_generate_id(c_->conn);
    xcb_create_window(c_->conn, XCB_COPY_FROM_PARENT, w, c_->screen->root, 10, 10, 200, 100, 0,
                      XCB_WINDOW_CLASS_INPUT_OUTPUT, c_->screen->root_visual, 0, nullptr);
    xcb_map_window(c_->conn, w);
    sync();
    return w;
}

void XClient::destroyWindow(Window w) {
    xcb_destroy_window(c_->conn, w);
    sync();
}

void XClient::setProperty(Window w, const char* name, const char* type, int format, const QByteArray& data) {
    const auto items = static_cast<uint32_t>(data.size() / (format / 8));
    xcb_change_property(c_->conn, XCB_PROP_MODE_REPLACE, w, atom(name), atom(type),
                        static_cast<uint8_t>(format), items, data.constData());
    sync();
}

void XClient::setCardinal(Window w, const char* name, std::uint32_t value) {
    setProperty(w, name, "CARDINAL", 32, QByteArray(reinterpret_cast<const char*>(&value), 4));
}

void XClient::setClass(Window w, const QByteArray& instance, const QByteArray& windowClass) {
    setText(w, "WM_CLASS", "STRING", instance + '\0' + windowClass + '\0');
}

void XClient::deleteProperty(Window w, const char* name) {
    xcb_delete_property(c_->conn, w, atom(name));
    sync();
}

std::vector<std::uint32_t> XClient::items32(Window w, const char* name) {
    auto* reply = xcb_get_property_reply(
        c_->conn, xcb_get_property(c_->conn, 0, w, atom(name), XCB_GET_PROPERTY_TYPE_ANY, 0, 4096), nullptr);
    std::vector<std::uint32_t> items;
    if (reply && reply->format == 32) {
        const auto* data = static_cast<const std::uint32_t*>(xcb_get_property_value(reply));
        items.assign(data, data + xcb_get_property_value_length(reply) / 4);
    }
    free(reply);
    return items;
}

bool XClient::activate(Window w, int timeoutMs) {
    xcb_client_message_event_t event{};
    event.response_type = XCB_CLIENT_MESSAGE;
    event.format = 32;
    event.window = w;
    event.type = atom("_NET_ACTIVE_WINDOW");
    event.data.data32[0] = 2;  // source: a pager, which window managers obey without question
    event.data.data32[1] = XCB_CURRENT_TIME;
    QElapsedTimer clock;
    clock.start();
    // A window the manager has not taken over yet ignores the request: ask again until it holds.
    for (int round = 0; clock.elapsed() < timeoutMs; ++round) {
        if (round % 10 == 0) {
            xcb_send_event(c_->conn, 0, c_->screen->root,
                           XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY,
                           reinterpret_cast<const char*>(&event));
            xcb_flush(c_->conn);
        }
        if (items32(root(), "_NET_ACTIVE_WINDOW") == std::vector<std::uint32_t>{w}) return true;
        QThread::msleep(10);
    }
    return false;
}

void XClient::setActiveWindow(Window w) {
    setProperty(c_->screen->root, "_NET_ACTIVE_WINDOW", "WINDOW", 32,
                QByteArray(reinterpret_cast<const char*>(&w), 4));
}

bool XClient::fakeInput() {
    static int16_t x = 0;
    x = static_cast<int16_t>(x % 500 + 1);  // a new place each time, so it is a real motion
    auto cookie = xcb_test_fake_input_checked(c_->conn, XCB_MOTION_NOTIFY, 0, XCB_CURRENT_TIME,
                                              c_->screen->root, x, 50, 0);
    xcb_generic_error_t* error = xcb_request_check(c_->conn, cookie);
    const bool done = error == nullptr;
    free(error);
    return done;
}

bool XClient::hasWindowManager() {
    if (!ok()) return false;
    const std::vector<std::uint32_t> check = items32(root(), "_NET_SUPPORTING_WM_CHECK");
    if (check.size() != 1) return false;
    auto* attrs =
        xcb_get_window_attributes_reply(c_->conn, xcb_get_window_attributes(c_->conn, check[0]), nullptr);
    const bool live = attrs != nullptr;
    free(attrs);
    return live;
}

bool XClient::framesNewWindows(int timeoutMs) {
    if (!ok()) return false;
    const Window w = createWindow();
    bool framed = false;
    QElapsedTimer clock;
    clock.start();
    while (!framed && clock.elapsed() < timeoutMs) {
        auto* tree = xcb_query_tree_reply(c_->conn, xcb_query_tree(c_->conn, w), nullptr);
        framed = tree && tree->parent != root();
        free(tree);
        if (!framed) QThread::msleep(20);
    }
    destroyWindow(w);
    return framed;
}

void XClient::sync() {
    free(xcb_get_input_focus_reply(c_->conn, xcb_get_input_focus(c_->conn), nullptr));
}

}  // namespace corvi::test
