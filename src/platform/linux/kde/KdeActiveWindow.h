#pragma once

#include <memory>

#include "platform/ActiveWindow.h"
#include "platform/linux/freedesktop/DesktopEntries.h"
#include "platform/linux/kde/KWinScript.h"

namespace corvi {

// The frontmost application on KWin, as our script inside it last reported: the window's
// desktop file name (else its class) as the ID, the entry's name, the pid and the caption.
class KdeActiveWindow : public ActiveWindow {
  public:
    explicit KdeActiveWindow(std::shared_ptr<KWinScript> script,
                             std::unique_ptr<DesktopEntries> entries = std::make_unique<DesktopEntries>());

    std::optional<Info> current() override;
    // The active window's caption when it belongs to `pid`.
    QString focusedWindowTitle(std::int32_t pid) override;

  private:
    std::shared_ptr<KWinScript> script_;
    std::unique_ptr<DesktopEntries> entries_;
};

}  // namespace corvi
