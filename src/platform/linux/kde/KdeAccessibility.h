#pragma once

#include <chrono>
#include <memory>

#include "platform/Accessibility.h"
#include "platform/linux/kde/KWinScript.h"

namespace corvi {

// Titles are readable while our script runs in KWin and reports to us. There is nothing to
// prompt for: KWin lets any client of the session bus load a script.
class KdeAccessibility : public Accessibility {
  public:
    explicit KdeAccessibility(std::shared_ptr<KWinScript> script) : script_(std::move(script)) {}

    bool trusted() override { return script_->reporting(); }
    bool trustedWithPrompt() override { return trusted(); }
    // The script reports a few milliseconds after start on a running KWin; a KWin that is
    // itself starting, at login, may take seconds.
    bool settling() override { return !trusted() && std::chrono::steady_clock::now() < settledBy_; }

  private:
    std::shared_ptr<KWinScript> script_;
    std::chrono::steady_clock::time_point settledBy_ = std::chrono::steady_clock::now() + std::chrono::seconds(5);
};

}  // namespace corvi
