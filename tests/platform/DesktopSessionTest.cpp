#include <gtest/gtest.h>

#include "platform/linux/DesktopSession.h"

namespace corvi {
namespace {

using Kind = DesktopSession::Kind;

TEST(DesktopSessionTest, BackendFollowsTheSession) {
    struct Row {
        const char* type;
        const char* waylandDisplay;
        const char* desktop;
        Kind kind;
    };
    const Row rows[] = {
        {"x11", "", "GNOME", Kind::x11},
        {"", "", "", Kind::x11},
        {"tty", "", "sway", Kind::x11},
        {"x11", "wayland-0", "sway", Kind::x11},  // an X session that inherited a socket
        {"wayland", "wayland-0", "GNOME", Kind::gnome},
        {"wayland", "wayland-0", "ubuntu:GNOME", Kind::gnome},
        {"wayland", "wayland-0", "KDE", Kind::kde},
        {"Wayland", "", "kde", Kind::kde},
        {"", "wayland-1", "sway", Kind::wlroots},
        {"wayland", "wayland-0", "Hyprland", Kind::wlroots},
        {"wayland", "wayland-0", "", Kind::wlroots},
    };
    for (const Row& r : rows) {
        QProcessEnvironment env;
        env.insert("XDG_SESSION_TYPE", r.type);
        if (*r.waylandDisplay) env.insert("WAYLAND_DISPLAY", r.waylandDisplay);
        env.insert("XDG_CURRENT_DESKTOP", r.desktop);
        EXPECT_EQ(DesktopSession::detect(env).kind, r.kind)
            << r.type << " " << r.waylandDisplay << " " << r.desktop;
    }
}

}  // namespace
}  // namespace corvi
