#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <xcb/xcb.h>

#include <QDir>
#include <cstring>

#include "platform/Display.h"

namespace corvi {

namespace {

// A Wayland display is a socket named by WAYLAND_DISPLAY, relative to XDG_RUNTIME_DIR unless
// absolute. Connecting is enough: the compositor speaks first only when asked.
bool waylandReachable(const QByteArray& name) {
    QByteArray path = name;
    if (!QDir::isAbsolutePath(QString::fromLocal8Bit(name))) {
        const QByteArray runtime = qgetenv("XDG_RUNTIME_DIR");
        if (runtime.isEmpty()) return false;
        path = runtime + '/' + name;
    }
    sockaddr_un address{};
    if (static_cast<std::size_t>(path.size()) >= sizeof address.sun_path) return false;
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.constData(), static_cast<std::size_t>(path.size()));
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return ok;
}

}  // namespace

bool displayReachable(QString* why) {
    const QByteArray wayland = qgetenv("WAYLAND_DISPLAY");
    if (!wayland.isEmpty() && waylandReachable(wayland)) return true;
    const QByteArray name = qgetenv("DISPLAY");
    if (name.isEmpty()) {
        if (why)
            *why = wayland.isEmpty() ? QStringLiteral("no display: neither WAYLAND_DISPLAY nor DISPLAY is set")
                                     : QStringLiteral("cannot connect to the Wayland display %1")
                                           .arg(QString::fromLocal8Bit(wayland));
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
