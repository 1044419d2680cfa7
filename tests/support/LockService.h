#pragma once

#include <QString>
#include <atomic>
#include <memory>

class QThread;

namespace corvi::test {

class LockServiceObject;

// A stand-in screen locker on a test bus: either a screen-saver service answering GetActive,
// or a logind session answering the LockedHint property. It runs on its own thread, so a
// blocking call from the test's thread gets its answer. Silent, it takes calls and never
// answers them.
class LockService {
  public:
    enum class Kind { ScreenSaver, LoginSession };

    // `service` e.g. "org.gnome.ScreenSaver"; the object path and interface follow from it
    // ("/org/gnome/ScreenSaver"), or are logind's for LoginSession.
    LockService(const QString& busAddress, const QString& service, Kind kind = Kind::ScreenSaver);
    ~LockService();
    LockService(const LockService&) = delete;
    LockService& operator=(const LockService&) = delete;

    bool ok() const { return ok_; }
    void setLocked(bool locked) { locked_ = locked; }
    void setSilent(bool silent) { silent_ = silent; }
    int calls() const { return calls_; }

  private:
    friend class LockServiceObject;
    QString connectionName_;
    QString service_;
    Kind kind_;
    std::atomic<bool> locked_{false};
    std::atomic<bool> silent_{false};
    std::atomic<int> calls_{0};
    bool ok_ = false;
    std::unique_ptr<QThread> thread_;
    LockServiceObject* object_ = nullptr;
};

}  // namespace corvi::test
