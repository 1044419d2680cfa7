#include "platform/linux/WlrActiveWindow.h"

namespace corvi {

WlrActiveWindow::WlrActiveWindow(std::shared_ptr<WlrToplevels> toplevels,
                                 std::unique_ptr<DesktopEntries> entries, std::function<void()> unsupported)
    : toplevels_(std::move(toplevels)), entries_(std::move(entries)), unsupported_(std::move(unsupported)) {}

std::optional<WlrToplevels::Window> WlrActiveWindow::activated() {
    if (!toplevels_->refresh()) return std::nullopt;
    if (!toplevels_->offered() && unsupported_) unsupported_();
    return toplevels_->activated();
}

std::optional<ActiveWindow::Info> WlrActiveWindow::current() {
    const std::optional<WlrToplevels::Window> w = activated();
    if (!w) return std::nullopt;
    const QString id = w->appId.trimmed();
    Info info;
    info.bundleID = id.isEmpty() ? QStringLiteral("unknown") : id;
    if (!id.isEmpty()) info.appName = entries_->nameForId(id);
    if (info.appName.isEmpty()) info.appName = info.bundleID;
    info.windowTitle = w->title;
    return info;
}

QString WlrActiveWindow::focusedWindowTitle(std::int32_t pid) {
    if (pid != 0) return {};
    const std::optional<WlrToplevels::Window> w = activated();
    return w ? w->title : QString();
}

}  // namespace corvi
