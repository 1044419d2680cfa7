#include <QDBusConnection>

#include "platform/Log.h"
#include "platform/linux/DesktopSession.h"
#include "platform/linux/freedesktop/ScreenLockProbe.h"
#include "platform/linux/gnome/GnomeAccessibility.h"
#include "platform/linux/gnome/GnomeActiveWindow.h"
#include "platform/linux/gnome/GnomeIdleMonitor.h"

namespace corvi {

// Everything comes from the session bus: the focused window from our Shell extension, the
// idle time from Mutter. Without the extension the window probe sees nothing and the
// permission reads as missing until it is enabled; the idle time does not depend on it.
Probes makeGnomeProbes(const DesktopSession&) {
    const QDBusConnection bus = QDBusConnection::sessionBus();
    auto extension = std::make_shared<GnomeShellExtension>(bus);
    // For whoever reads the log of a machine where titles never show up.
    if (!extension->focus())
        Log::line(
            QStringLiteral("CorviAgent: a extensão %1 do GNOME Shell não responde; janela ativa indisponível "
                           "até que seja ativada")
                .arg(QString::fromLatin1(GnomeShellExtension::kUuid)));
    return {std::make_unique<GnomeActiveWindow>(extension),
            std::make_unique<GnomeIdleMonitor>(bus, makeScreenLockProbe(), extension),
            std::make_unique<GnomeAccessibility>(extension, bus)};
}

}  // namespace corvi
