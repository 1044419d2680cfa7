#pragma once

#include <memory>

#include "platform/ActiveWindow.h"
#include "platform/linux/freedesktop/DesktopEntries.h"
#include "platform/linux/gnome/GnomeShellExtension.h"

namespace corvi {

// The focused window as our GNOME Shell extension reports it, named by the desktop entry
// of its application ID. One bus call per read.
class GnomeActiveWindow : public ActiveWindow {
  public:
    GnomeActiveWindow(std::shared_ptr<GnomeShellExtension> extension,
                      std::unique_ptr<DesktopEntries> entries = std::make_unique<DesktopEntries>());

    std::optional<Info> current() override;
    QString focusedWindowTitle(std::int32_t pid) override;

  private:
    std::shared_ptr<GnomeShellExtension> extension_;
    std::unique_ptr<DesktopEntries> entries_;
};

}  // namespace corvi
