#pragma once

#include <QDBusConnection>
#include <chrono>

namespace corvi {

// Whether the screen is locked, asked of whichever locker runs: the screen-saver services on
// the session bus (freedesktop, GNOME, MATE, Cinnamon), then logind's LockedHint on the
// system bus, in that order, each call waiting at most kCallTimeoutMs. The first that answers
// is remembered, so a tick costs one call; when it fails to answer, the same tick searches
// again. While none answers, the search is repeated only every `reprobeInterval`.
class ScreenLockProbe {
  public:
    static constexpr int kCallTimeoutMs = 250;

    ScreenLockProbe(QDBusConnection sessionBus, QDBusConnection systemBus,
                    std::chrono::milliseconds reprobeInterval = std::chrono::seconds(60));

    bool locked();

  private:
    enum class Answer { Locked, Unlocked, None };
    Answer ask(int service);

    QDBusConnection session_;
    QDBusConnection system_;
    std::chrono::milliseconds reprobeInterval_;
    int found_ = -1;
    bool searched_ = false;
    std::chrono::steady_clock::time_point lastSearch_{};
};

}  // namespace corvi
