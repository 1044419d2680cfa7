#include "platform/linux/wayland/WlrActiveWindow.h"

namespace corvi {

WlrActiveWindow::WlrActiveWindow(std::shared_ptr<WlrToplevels> toplevels,
                                 std::unique_ptr<DesktopEntries> entries, std::unique_ptr<SwayIpc> sway,
                                 std::function<void()> unsupported)
    : toplevels_(std::move(toplevels)),
      entries_(std::move(entries)),
      sway_(std::move(sway)),
      unsupported_(std::move(unsupported)) {}

std::optional<WlrToplevels::Window> WlrActiveWindow::activated() {
    if (!toplevels_->refresh()) return std::nullopt;
    if (!toplevels_->offered() && unsupported_) unsupported_();
    return toplevels_->activated();
}

std::optional<ActiveWindow::Info> WlrActiveWindow::current() {
    const std::optional<WlrToplevels::Window> w = activated();
    if (!w) return std::nullopt;
    return describeWindow(*entries_, w->appId.trimmed(), pidOf(*w), w->title);
}

QString WlrActiveWindow::focusedWindowTitle(std::int32_t pid) {
    const std::optional<WlrToplevels::Window> w = activated();
    return w && pidOf(*w) == pid ? w->title : QString();
}

std::int32_t WlrActiveWindow::pidOf(const WlrToplevels::Window& w) {
    if (!sway_) return 0;
    if (w.id != pidWindow_) {
        pidWindow_ = w.id;
        pid_ = 0;
        pidTries_ = 0;
    }
    // sway's focus can lag the protocol's by an event; a mismatch is tried again next time.
    if (pid_ == 0 && pidTries_ < kPidTries) {
        ++pidTries_;
        pid_ = sway_->focusedPid(w.appId, w.title);
    }
    return pid_;
}

}  // namespace corvi
