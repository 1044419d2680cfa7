#pragma once

#include <memory>

#include "platform/Accessibility.h"
#include "platform/linux/KWinScript.h"

namespace corvi {

// Titles are readable while our script runs in KWin and reports to us. There is nothing to
// prompt for: KWin lets any client of the session bus load a script.
class KdeAccessibility : public Accessibility {
  public:
    explicit KdeAccessibility(std::shared_ptr<KWinScript> script) : script_(std::move(script)) {}

    bool trusted() override { return script_->reporting(); }
    bool trustedWithPrompt() override { return trusted(); }

  private:
    std::shared_ptr<KWinScript> script_;
};

}  // namespace corvi
