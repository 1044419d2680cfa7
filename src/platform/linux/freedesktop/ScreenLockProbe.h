#pragma once

#include <QDBusConnection>
#include <memory>

class QDBusServiceWatcher;

namespace corvi {

// Whether the screen is locked, asked of whichever locker runs: the screen-saver services on
// the session bus (freedesktop, GNOME, MATE, Cinnamon), then logind's LockedHint on the
// system bus, in that order, each call waiting at most kCallTimeoutMs. The first that answers
// is remembered, so a tick costs one call; when it fails to answer, the same tick searches
// again. No call makes the bus start a locker that is installed but not running. While none
// answers, nothing is asked until one of their names gets an owner (the bus says so), so a
// locker that comes later is found at the next tick. Main thread: the bus's word arrives
// through the event loop.
class ScreenLockProbe {
  public:
    static constexpr int kCallTimeoutMs = 250;

    ScreenLockProbe(QDBusConnection sessionBus, QDBusConnection systemBus);
    ~ScreenLockProbe();
    ScreenLockProbe(const ScreenLockProbe&) = delete;
    ScreenLockProbe& operator=(const ScreenLockProbe&) = delete;

    bool locked();

  private:
    enum class Answer { Locked, Unlocked, None };
    Answer ask(int service);
    std::unique_ptr<QDBusServiceWatcher> watch(QDBusConnection& bus, bool systemBus);

    QDBusConnection session_;
    QDBusConnection system_;
    int found_ = -1;
    bool searchDue_ = true;
    std::unique_ptr<QDBusServiceWatcher> sessionWatch_, systemWatch_;
};

}  // namespace corvi
