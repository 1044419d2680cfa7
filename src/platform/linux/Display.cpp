#include <xcb/xcb.h>

#include "platform/Display.h"

namespace corvi {

bool displayReachable(QString* why) {
    const QByteArray name = qgetenv("DISPLAY");
    if (name.isEmpty()) {
        if (why) *why = QStringLiteral("no X11 display: DISPLAY is not set");
        return false;
    }
    xcb_connection_t* c = xcb_connect(name.constData(), nullptr);
    const bool ok = !xcb_connection_has_error(c);
    xcb_disconnect(c);
    if (!ok && why)
        *why = QStringLiteral("cannot connect to the X11 display %1").arg(QString::fromLocal8Bit(name));
    return ok;
}

}  // namespace corvi
