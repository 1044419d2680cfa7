#include "platform/linux/x11/X11IdleMonitor.h"

#include <xcb/screensaver.h>

#include <cmath>
#include <cstdlib>

namespace corvi {

X11IdleMonitor::X11IdleMonitor(std::shared_ptr<X11Session> session, std::unique_ptr<ScreenLockProbe> lock)
    : session_(std::move(session)), lock_(std::move(lock)) {}

double X11IdleMonitor::idleSeconds() {
    xcb_connection_t* c = session_->connection();
    if (!c || !session_->hasScreenSaverExtension()) return 0;
    const auto cookie = session_->sent(xcb_screensaver_query_info(c, session_->root()));
    session_->willWait(cookie.sequence);
    xcb_generic_error_t* error = nullptr;
    xcb_screensaver_query_info_reply_t* reply = xcb_screensaver_query_info_reply(c, cookie, &error);
    free(error);
    const double seconds = reply ? reply->ms_since_user_input / 1000.0 : 0.0;
    free(reply);
    return std::isfinite(seconds) ? seconds : 0.0;
}

bool X11IdleMonitor::screenLocked() {
    return lock_ && lock_->locked();
}

}  // namespace corvi
