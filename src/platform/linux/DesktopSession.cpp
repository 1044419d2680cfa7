#include "platform/linux/DesktopSession.h"

#include <QDBusConnection>
#include <QStringList>

#include "platform/Log.h"
#include "platform/linux/freedesktop/ScreenLockProbe.h"

namespace corvi {

namespace {

class NeutralWindow : public ActiveWindow {
  public:
    std::optional<Info> current() override { return std::nullopt; }
    QString focusedWindowTitle(std::int32_t) override { return {}; }
};

class NeutralIdle : public IdleMonitor {
  public:
    explicit NeutralIdle(std::unique_ptr<ScreenLockProbe> lock) : lock_(std::move(lock)) {}
    double idleSeconds() override { return 0; }
    bool screenLocked() override { return lock_->locked(); }

  private:
    std::unique_ptr<ScreenLockProbe> lock_;
};

class NeutralAccessibility : public Accessibility {
  public:
    bool trusted() override { return false; }
    bool trustedWithPrompt() override { return false; }
};

}  // namespace

DesktopSession DesktopSession::detect(const QProcessEnvironment& env) {
    DesktopSession s;
    s.sessionType = env.value(QStringLiteral("XDG_SESSION_TYPE"));
    s.desktop = env.value(QStringLiteral("XDG_CURRENT_DESKTOP"));
    const QString type = s.sessionType.toLower();
    // A session that says nothing but has a Wayland socket is Wayland; DISPLAY then belongs
    // to Xwayland, which sees only X clients.
    const bool wayland =
        type == QLatin1String("wayland") ||
        (type != QLatin1String("x11") && !env.value(QStringLiteral("WAYLAND_DISPLAY")).isEmpty());
    if (!wayland) return s;
    const QStringList names = s.desktop.toLower().split(QLatin1Char(':'), Qt::SkipEmptyParts);
    if (names.contains(QLatin1String("gnome")))
        s.kind = Kind::gnome;
    else if (names.contains(QLatin1String("kde")))
        s.kind = Kind::kde;
    else
        s.kind = Kind::wlroots;
    return s;
}

void logUnsupportedSession(const DesktopSession& session) {
    static bool logged = false;
    if (logged) return;
    logged = true;
    const auto orDash = [](const QString& s) { return s.isEmpty() ? QStringLiteral("-") : s; };
    Log::line(
        QStringLiteral("CorviAgent: sessão %1 (%2) sem suporte: janela ativa e ociosidade indisponíveis")
            .arg(orDash(session.sessionType), orDash(session.desktop)));
}

std::unique_ptr<ScreenLockProbe> makeScreenLockProbe() {
    return std::make_unique<ScreenLockProbe>(QDBusConnection::sessionBus(), QDBusConnection::systemBus());
}

Probes makeNeutralProbes() {
    return {std::make_unique<NeutralWindow>(), std::make_unique<NeutralIdle>(makeScreenLockProbe()),
            std::make_unique<NeutralAccessibility>()};
}

}  // namespace corvi
