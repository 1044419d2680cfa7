#include "platform/XEmbedTray.h"

#include <xcb/xcb.h>

#include <QByteArray>
#include <QCoreApplication>
#include <cstdlib>

namespace corvi {
namespace {

// A connection of its own: this runs at start and when a tray announces itself, not per tick.
struct TrayDisplay {
    TrayDisplay() : c(xcb_connect(nullptr, &screen)) {}
    ~TrayDisplay() { xcb_disconnect(c); }
    TrayDisplay(const TrayDisplay&) = delete;
    TrayDisplay& operator=(const TrayDisplay&) = delete;

    bool ok() const { return !xcb_connection_has_error(c); }
    xcb_atom_t atom(const QByteArray& name, bool onlyIfExists) const {
        xcb_intern_atom_reply_t* r = xcb_intern_atom_reply(
            c, xcb_intern_atom(c, onlyIfExists, static_cast<uint16_t>(name.size()), name.constData()),
            nullptr);
        const xcb_atom_t a = r ? r->atom : xcb_atom_t(XCB_ATOM_NONE);
        std::free(r);
        return a;
    }
    QByteArray selection() const { return "_NET_SYSTEM_TRAY_S" + QByteArray::number(screen); }

    int screen = 0;  // before the connection, which fills it in
    xcb_connection_t* c;
};

}  // namespace

bool xembedTrayPresent() {
    const TrayDisplay x;
    if (!x.ok()) return false;
    // A display where no tray ever ran has no such atom; asking must not make one.
    const xcb_atom_t selection = x.atom(x.selection(), true);
    if (selection == XCB_ATOM_NONE) return false;
    xcb_get_selection_owner_reply_t* r =
        xcb_get_selection_owner_reply(x.c, xcb_get_selection_owner(x.c, selection), nullptr);
    const bool owned = r && r->owner != xcb_window_t(XCB_WINDOW_NONE);
    std::free(r);
    return owned;
}

XEmbedTrayArrival::XEmbedTrayArrival(std::function<void()> arrived) : arrived_(std::move(arrived)) {
    const TrayDisplay x;
    if (x.ok()) {
        manager_ = x.atom("MANAGER", false);
        selection_ = x.atom(x.selection(), false);
    }
    if (auto* app = QCoreApplication::instance()) app->installNativeEventFilter(this);
}

XEmbedTrayArrival::~XEmbedTrayArrival() {
    if (auto* app = QCoreApplication::instance()) app->removeNativeEventFilter(this);
}

bool XEmbedTrayArrival::nativeEventFilter(const QByteArray& eventType, void* message, qintptr*) {
    if (manager_ == XCB_ATOM_NONE || eventType != "xcb_generic_event_t") return false;
    const auto* event = static_cast<const xcb_generic_event_t*>(message);
    if ((event->response_type & 0x7f) != XCB_CLIENT_MESSAGE) return false;
    const auto* m = static_cast<const xcb_client_message_event_t*>(message);
    if (m->type == manager_ && m->format == 32 && m->data.data32[1] == selection_) arrived_();
    // Qt's own tray tracking reads the same message.
    return false;
}

}  // namespace corvi
