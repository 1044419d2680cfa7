#include "platform/linux/kde/KdeActiveWindow.h"

namespace corvi {

KdeActiveWindow::KdeActiveWindow(std::shared_ptr<KWinScript> script, std::unique_ptr<DesktopEntries> entries)
    : script_(std::move(script)), entries_(std::move(entries)) {}

std::optional<ActiveWindow::Info> KdeActiveWindow::current() {
    const std::optional<KWinScript::Window> w = script_->active();
    if (!w) return std::nullopt;
    // KWin gives the desktop file name without ".desktop", but a client may set a path.
    QString id = desktopFileId(w->desktopFileName);
    if (id.isEmpty()) id = w->resourceClass.trimmed();
    return describeWindow(*entries_, id, w->pid, w->caption);
}

QString KdeActiveWindow::focusedWindowTitle(std::int32_t pid) {
    const std::optional<KWinScript::Window> w = script_->active();
    return w && w->pid == pid && pid > 0 ? w->caption : QString();
}

}  // namespace corvi
