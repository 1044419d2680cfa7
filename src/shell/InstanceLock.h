#pragma once

#include <QString>

namespace corvi {

// One agent per user: an exclusive lock on a file in the data folder, held for the life of
// the process and dropped by the kernel when it ends (even on a crash). Taken before the
// database is opened, so a second start never touches it.
class InstanceLock {
  public:
    explicit InstanceLock(const QString& path);
    ~InstanceLock();
    InstanceLock(const InstanceLock&) = delete;
    InstanceLock& operator=(const InstanceLock&) = delete;

    bool acquired() const { return acquired_; }
    // The pid written by the holder, 0 when unknown.
    long holderPid() const { return holder_; }

  private:
    int fd_ = -1;
    bool acquired_ = false;
    long holder_ = 0;
};

}  // namespace corvi
