#pragma once

#include <QDBusConnection>
#include <chrono>

namespace corvi {

// Whether the screen is locked, asked of whichever locker runs: the screen-saver services on
// the session bus (freedesktop, GNOME, MATE, Cinnamon), then logind's LockedHint on the
// system bus. The first that answers is remembered, so a tick costs one call of at most
// kCallTimeoutMs; while none answers, the search is repeated only every `reprobeInterval`.
// A bus that lets one call time out is not asked again in the same search, so a hung bus
// costs a tick at most one timeout per bus.
class ScreenLockProbe {
  public:
    static constexpr int kCallTimeoutMs = 250;

    ScreenLockProbe(QDBusConnection sessionBus, QDBusConnection systemBus,
                    std::chrono::milliseconds reprobeInterval = std::chrono::seconds(60));

    bool locked();

  private:
    enum class Answer { Locked, Unlocked, None, Silent };
    Answer ask(int service);

    QDBusConnection session_;
    QDBusConnection system_;
    std::chrono::milliseconds reprobeInterval_;
    int found_ = -1;
    bool searched_ = false;
    std::chrono::steady_clock::time_point lastSearch_{};
};

}  // namespace corvi
