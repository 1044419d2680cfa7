#include "platform/linux/gnome/GnomeActiveWindow.h"

namespace corvi {

GnomeActiveWindow::GnomeActiveWindow(std::shared_ptr<GnomeShellExtension> extension,
                                     std::unique_ptr<DesktopEntries> entries)
    : extension_(std::move(extension)), entries_(std::move(entries)) {}

std::optional<ActiveWindow::Info> GnomeActiveWindow::current() {
    const std::optional<GnomeShellExtension::Focus> f = extension_->focus();
    if (!f || !f->focused) return std::nullopt;
    return describeWindow(*entries_, f->appId, f->pid, f->title);
}

QString GnomeActiveWindow::focusedWindowTitle(std::int32_t pid) {
    const std::optional<GnomeShellExtension::Focus> f = extension_->focus();
    return f && f->focused && f->pid == pid ? f->title : QString();
}

}  // namespace corvi
