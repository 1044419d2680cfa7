#pragma once

#include <memory>
#include <optional>

#include "platform/ActiveWindow.h"
#include "platform/linux/freedesktop/DesktopEntries.h"
#include "platform/linux/x11/X11Session.h"

namespace corvi {

// The frontmost application on an EWMH desktop: the window named by _NET_ACTIVE_WINDOW and
// what its properties, its process and the desktop entries say about it. A steady tick asks
// X for the active window and its title only; what else the window says is read again when
// it changes (X tells) or another window comes to the front.
class X11ActiveWindow : public ActiveWindow {
  public:
    explicit X11ActiveWindow(std::shared_ptr<X11Session> session,
                             std::unique_ptr<DesktopEntries> entries = std::make_unique<DesktopEntries>());

    std::optional<Info> current() override;
    // The title of the active window when it belongs to `pid`; X11 has no per-application
    // focus, so any other process has no focused window.
    QString focusedWindowTitle(std::int32_t pid) override;

    // At most this much of a title is read; a longer one is cut at a character boundary.
    static constexpr std::uint32_t kTitleBytes = 64 * 1024;

  private:
    struct Facts {
        std::int32_t pid = 0;
        QString title;
        QString instance, windowClass;  // the two parts of WM_CLASS
        QString gtkApplicationId;
        QString kdeDesktopFile;
    };

    xcb_window_t activeWindow(xcb_connection_t* c);
    // The window's facts, from what is kept when nothing but the title can have changed.
    std::optional<Facts> facts(xcb_connection_t* c, xcb_window_t window);
    std::optional<Facts> read(xcb_connection_t* c, xcb_window_t window);
    // None when the window is gone.
    std::optional<QString> readTitle(xcb_connection_t* c, xcb_window_t window);

    std::shared_ptr<X11Session> session_;
    std::unique_ptr<DesktopEntries> entries_;
    // The Flatpak ID of the active window's process, read when the window or its pid changes:
    // a window belongs to one process for its life, and a reused pid comes with a new window.
    std::optional<Facts> kept_;
    xcb_window_t keptWindow_ = XCB_WINDOW_NONE;
    std::uint64_t keptGeneration_ = 0;
    xcb_window_t sandboxWindow_ = XCB_WINDOW_NONE;
    std::int32_t sandboxPid_ = 0;
    QString sandboxId_;
};

}  // namespace corvi
