#include "platform/linux/KdeActiveWindow.h"

namespace corvi {
namespace {

// KWin gives the desktop file name without ".desktop", but a client may set a path.
QString desktopFileId(QString value) {
    value = value.trimmed();
    if (const qsizetype slash = value.lastIndexOf(u'/'); slash >= 0) value = value.mid(slash + 1);
    if (value.endsWith(QStringLiteral(".desktop"))) value.chop(8);
    return value;
}

}  // namespace

KdeActiveWindow::KdeActiveWindow(std::shared_ptr<KWinScript> script, std::unique_ptr<DesktopEntries> entries)
    : script_(std::move(script)), entries_(std::move(entries)) {}

std::optional<ActiveWindow::Info> KdeActiveWindow::current() {
    const std::optional<KWinScript::Window> w = script_->active();
    if (!w) return std::nullopt;
    QString id = desktopFileId(w->desktopFileName);
    if (id.isEmpty()) id = w->resourceClass.trimmed();
    Info info;
    info.bundleID = id.isEmpty() ? QStringLiteral("unknown") : id;
    if (!id.isEmpty()) info.appName = entries_->nameForId(id);
    if (info.appName.isEmpty()) info.appName = info.bundleID;
    info.pid = w->pid;
    info.windowTitle = w->caption;
    return info;
}

QString KdeActiveWindow::focusedWindowTitle(std::int32_t pid) {
    const std::optional<KWinScript::Window> w = script_->active();
    return w && w->pid == pid && pid > 0 ? w->caption : QString();
}

}  // namespace corvi
