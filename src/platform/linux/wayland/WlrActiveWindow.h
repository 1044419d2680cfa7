#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "platform/ActiveWindow.h"
#include "platform/linux/freedesktop/DesktopEntries.h"
#include "platform/linux/wayland/SwayIpc.h"
#include "platform/linux/wayland/WlrToplevels.h"

namespace corvi {

// The frontmost application on a wlroots compositor: the activated toplevel, named by its app
// ID through the desktop entries. The protocol tells no process; sway does over its IPC, asked
// once per window. Elsewhere the pid is 0.
class WlrActiveWindow : public ActiveWindow {
  public:
    // `unsupported` runs whenever a live connection lacks the toplevel manager; `sway` may be
    // null.
    explicit WlrActiveWindow(std::shared_ptr<WlrToplevels> toplevels,
                             std::unique_ptr<DesktopEntries> entries = std::make_unique<DesktopEntries>(),
                             std::unique_ptr<SwayIpc> sway = nullptr, std::function<void()> unsupported = {});

    std::optional<Info> current() override;
    // The activated window's title when `pid` owns it (0 where the pid is not known).
    QString focusedWindowTitle(std::int32_t pid) override;

    // Asks sway at most this often for one window whose pid it does not give.
    static constexpr int kPidTries = 3;

  private:
    std::optional<WlrToplevels::Window> activated();
    std::int32_t pidOf(const WlrToplevels::Window& w);

    std::shared_ptr<WlrToplevels> toplevels_;
    std::unique_ptr<DesktopEntries> entries_;
    std::unique_ptr<SwayIpc> sway_;
    std::function<void()> unsupported_;
    std::uint64_t pidWindow_ = 0;  // the window pid_ belongs to
    std::int32_t pid_ = 0;
    int pidTries_ = 0;
};

}  // namespace corvi
