#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "platform/ActiveWindow.h"
#include "platform/linux/DesktopEntries.h"
#include "platform/linux/WlrToplevels.h"

namespace corvi {

// The frontmost application on a wlroots compositor: the activated toplevel, named by its app
// ID through the desktop entries. The protocol tells no process, so the pid is 0.
class WlrActiveWindow : public ActiveWindow {
  public:
    // `unsupported` runs whenever a live connection lacks the toplevel manager.
    explicit WlrActiveWindow(std::shared_ptr<WlrToplevels> toplevels,
                             std::unique_ptr<DesktopEntries> entries = std::make_unique<DesktopEntries>(),
                             std::function<void()> unsupported = {});

    std::optional<Info> current() override;
    // The activated window's title; every window has pid 0 here.
    QString focusedWindowTitle(std::int32_t pid) override;

  private:
    std::optional<WlrToplevels::Window> activated();

    std::shared_ptr<WlrToplevels> toplevels_;
    std::unique_ptr<DesktopEntries> entries_;
    std::function<void()> unsupported_;
};

}  // namespace corvi
