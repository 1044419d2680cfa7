#pragma once

#include <memory>

#include "platform/Accessibility.h"
#include "platform/linux/wayland/WlrToplevels.h"

namespace corvi {

// Titles are readable when the live compositor offers the foreign-toplevel manager; there is
// nothing to grant or prompt for.
class WlrAccessibility : public Accessibility {
  public:
    explicit WlrAccessibility(std::shared_ptr<WlrToplevels> toplevels) : toplevels_(std::move(toplevels)) {}

    bool trusted() override { return toplevels_->refresh() && toplevels_->offered(); }
    bool trustedWithPrompt() override { return trusted(); }

  private:
    std::shared_ptr<WlrToplevels> toplevels_;
};

}  // namespace corvi
