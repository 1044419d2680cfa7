#include "platform/linux/x11/X11Session.h"

#include <xcb/res.h>
#include <xcb/screensaver.h>

#include <QSocketNotifier>
#include <cstdlib>
#include <cstring>

#include "platform/linux/x11/CompoundTextDecoder.h"

namespace corvi {

X11Session::X11Session(QByteArray displayName, std::chrono::milliseconds retryInterval)
    : displayName_(std::move(displayName)), retryInterval_(retryInterval) {}

X11Session::~X11Session() {
    disconnect();
}

std::shared_ptr<X11Session> X11Session::shared() {
    static const auto session = std::make_shared<X11Session>();
    return session;
}

xcb_connection_t* X11Session::connection() {
    if (conn_ && !xcb_connection_has_error(conn_)) return conn_;
    if (conn_) {
        // The display went away under us: start the retry clock now.
        disconnect();
        attempted_ = true;
        lastAttempt_ = std::chrono::steady_clock::now();
        return nullptr;
    }
    const auto now = std::chrono::steady_clock::now();
    if (attempted_ && now - lastAttempt_ < retryInterval_) return nullptr;
    attempted_ = true;
    lastAttempt_ = now;
    return connect() ? conn_ : nullptr;
}

bool X11Session::connect() {
    const QByteArray name = displayName_.isEmpty() ? qgetenv("DISPLAY") : displayName_;
    if (name.isEmpty()) return false;
    int screenNumber = 0;
    xcb_connection_t* c = xcb_connect(name.constData(), &screenNumber);
    if (xcb_connection_has_error(c)) {
        xcb_disconnect(c);
        return false;
    }
    xcb_screen_iterator_t it = xcb_setup_roots_iterator(xcb_get_setup(c));
    for (int i = 0; i < screenNumber && it.rem; ++i) xcb_screen_next(&it);
    if (!it.rem) {
        xcb_disconnect(c);
        return false;
    }

    // Atoms and extensions in one round trip.
    struct Want {
        const char* name;
        xcb_atom_t* slot;
    };
    const Want wants[] = {
        {"_NET_ACTIVE_WINDOW", &atoms_.netActiveWindow},
        {"_NET_SUPPORTED", &atoms_.netSupported},
        {"_NET_SUPPORTING_WM_CHECK", &atoms_.netSupportingWmCheck},
        {"_NET_WM_NAME", &atoms_.netWmName},
        {"_NET_WM_PID", &atoms_.netWmPid},
        {"UTF8_STRING", &atoms_.utf8String},
        {"COMPOUND_TEXT", &atoms_.compoundText},
        {"_GTK_APPLICATION_ID", &atoms_.gtkApplicationId},
        {"_KDE_NET_WM_DESKTOP_FILE", &atoms_.kdeDesktopFile},
    };
    constexpr size_t count = sizeof(wants) / sizeof(wants[0]);
    lastSent_ = horizon_ = 0;
    xcb_intern_atom_cookie_t cookies[count];
    for (size_t i = 0; i < count; ++i)
        cookies[i] = sent(xcb_intern_atom(c, 0, static_cast<uint16_t>(strlen(wants[i].name)), wants[i].name));
    xcb_prefetch_extension_data(c, &xcb_res_id);
    xcb_prefetch_extension_data(c, &xcb_screensaver_id);

    conn_ = c;
    root_ = it.data->root;
    connectedName_ = name;
    for (size_t i = 0; i < count; ++i) {
        willWait(cookies[i].sequence);
        xcb_intern_atom_reply_t* reply = xcb_intern_atom_reply(c, cookies[i], nullptr);
        *wants[i].slot = reply ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
        free(reply);
    }
    const xcb_query_extension_reply_t* res = xcb_get_extension_data(c, &xcb_res_id);
    const xcb_query_extension_reply_t* saver = xcb_get_extension_data(c, &xcb_screensaver_id);
    hasRes_ = res && res->present;
    hasScreenSaver_ = saver && saver->present;
    // The root's property changes tell of a new active window manager or its support.
    const std::uint32_t rootEvents = XCB_EVENT_MASK_PROPERTY_CHANGE;
    sent(xcb_change_window_attributes(c, root_, XCB_CW_EVENT_MASK, &rootEvents));
    ++wmGeneration_;
    ++windowGeneration_;
    notifier_ = std::make_unique<QSocketNotifier>(xcb_get_file_descriptor(c), QSocketNotifier::Read);
    QObject::connect(notifier_.get(), &QSocketNotifier::activated, notifier_.get(), [this] {
        takeEvents();
        // A closed connection stays readable: the next tick's connection() takes it from here.
        if (xcb_connection_has_error(conn_)) notifier_->setEnabled(false);
    });
    if (xcb_connection_has_error(c)) {
        disconnect();
        return false;
    }
    return true;
}

void X11Session::takeEvents() {
    if (!conn_) return;
    while (xcb_generic_event_t* event = xcb_poll_for_event(conn_)) {
        switch (event->response_type & 0x7f) {
            case XCB_PROPERTY_NOTIFY: {
                const auto* e = reinterpret_cast<xcb_property_notify_event_t*>(event);
                if (e->window == root_) {
                    if (e->atom == atoms_.netSupported || e->atom == atoms_.netSupportingWmCheck)
                        ++wmGeneration_;
                } else if (e->window == watched_ && e->atom != atoms_.netWmName &&
                           e->atom != XCB_ATOM_WM_NAME) {
                    ++windowGeneration_;
                }
                break;
            }
            case XCB_DESTROY_NOTIFY:
                if (reinterpret_cast<xcb_destroy_notify_event_t*>(event)->window == checkWindow_) {
                    checkWindow_ = XCB_WINDOW_NONE;
                    ++wmGeneration_;
                }
                break;
            default:  // errors of requests whose outcome nobody awaits (a window gone meanwhile)
                break;
        }
        free(event);
    }
}

std::uint64_t X11Session::wmGeneration() {
    takeEvents();
    return wmGeneration_;
}

std::uint64_t X11Session::windowGeneration() {
    takeEvents();
    return windowGeneration_;
}

void X11Session::watchWindow(xcb_window_t window) {
    if (!conn_ || window == watched_) return;
    const std::uint32_t none = 0, properties = XCB_EVENT_MASK_PROPERTY_CHANGE;
    if (watched_ != XCB_WINDOW_NONE)
        sent(xcb_change_window_attributes(conn_, watched_, XCB_CW_EVENT_MASK, &none));
    watched_ = window;
    if (window != XCB_WINDOW_NONE)
        sent(xcb_change_window_attributes(conn_, window, XCB_CW_EVENT_MASK, &properties));
    ++windowGeneration_;
}

void X11Session::watchCheckWindow(xcb_window_t window) {
    if (!conn_ || window == checkWindow_) return;
    const std::uint32_t structure = XCB_EVENT_MASK_STRUCTURE_NOTIFY;
    checkWindow_ = window;
    sent(xcb_change_window_attributes(conn_, window, XCB_CW_EVENT_MASK, &structure));
}

void X11Session::disconnect() {
    notifier_.reset();
    compound_.reset();
    if (conn_) xcb_disconnect(conn_);
    conn_ = nullptr;
    root_ = XCB_WINDOW_NONE;
    watched_ = checkWindow_ = XCB_WINDOW_NONE;
    atoms_ = {};
    hasRes_ = hasScreenSaver_ = false;
}

void X11Session::willWait(unsigned int sequence) {
    if (static_cast<int>(sequence - horizon_) > 0) {
        ++roundTrips_;
        horizon_ = static_cast<int>(lastSent_ - sequence) > 0 ? lastSent_ : sequence;
    }
}

QString X11Session::decodeCompoundText(const QByteArray& bytes) {
    if (!conn_) return {};
    if (!compound_) compound_ = std::make_unique<CompoundTextDecoder>(connectedName_);
    return compound_->decode(bytes);
}

}  // namespace corvi
