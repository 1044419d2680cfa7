#include "platform/linux/x11/X11Accessibility.h"

#include <cstdlib>

namespace corvi {
namespace {

struct FreeDeleter {
    void operator()(void* p) const { free(p); }
};
using PropertyReply = std::unique_ptr<xcb_get_property_reply_t, FreeDeleter>;

PropertyReply await(X11Session& s, xcb_connection_t* c, xcb_get_property_cookie_t cookie) {
    s.willWait(cookie.sequence);
    xcb_generic_error_t* error = nullptr;
    PropertyReply reply(xcb_get_property_reply(c, cookie, &error));
    free(error);
    return reply;
}

xcb_window_t windowIn(const PropertyReply& p) {
    if (!p || p->type != XCB_ATOM_WINDOW || p->format != 32 || xcb_get_property_value_length(p.get()) < 4)
        return XCB_WINDOW_NONE;
    return *static_cast<const xcb_window_t*>(xcb_get_property_value(p.get()));
}

}  // namespace

X11Accessibility::X11Accessibility(std::shared_ptr<X11Session> session) : session_(std::move(session)) {}

bool X11Accessibility::trusted() {
    xcb_connection_t* c = session_->connection();
    if (!c) return false;
    // Taken before reading, so a change while it reads is read again next time.
    const std::uint64_t generation = session_->wmGeneration();
    if (known_ && generation == generation_) return trusted_;
    trusted_ = read(c);
    known_ = true;
    generation_ = generation;
    return trusted_;
}

bool X11Accessibility::read(xcb_connection_t* c) {
    const X11Session::Atoms& a = session_->atoms();
    constexpr std::uint32_t kMaxAtoms = 4096;
    const auto checkCookie = session_->sent(
        xcb_get_property(c, 0, session_->root(), a.netSupportingWmCheck, XCB_ATOM_WINDOW, 0, 1));
    const auto supportedCookie =
        session_->sent(xcb_get_property(c, 0, session_->root(), a.netSupported, XCB_ATOM_ATOM, 0, kMaxAtoms));
    const xcb_window_t check = windowIn(await(*session_, c, checkCookie));
    const PropertyReply supported = await(*session_, c, supportedCookie);
    if (check == XCB_WINDOW_NONE || !supported || supported->format != 32) return false;
    // Followed before it is checked: once it names itself, its going is told.
    session_->watchCheckWindow(check);
    const auto selfCookie =
        session_->sent(xcb_get_property(c, 0, check, a.netSupportingWmCheck, XCB_ATOM_WINDOW, 0, 1));
    if (windowIn(await(*session_, c, selfCookie)) != check) return false;
    const auto* atoms = static_cast<const xcb_atom_t*>(xcb_get_property_value(supported.get()));
    const int count = xcb_get_property_value_length(supported.get()) / 4;
    for (int i = 0; i < count; ++i)
        if (atoms[i] == a.netActiveWindow) return true;
    return false;
}

}  // namespace corvi
