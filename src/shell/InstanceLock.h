#pragma once

#include <QString>

namespace corvi {

// One agent per user: an exclusive lock on a file in the data folder, held for the life of
// the process and dropped by the kernel when it ends (even on a crash). Taken before the
// database is opened, so a second start never touches it. Where no lock file can be opened
// or made, error() says why.
class InstanceLock {
  public:
    explicit InstanceLock(const QString& path);
    ~InstanceLock();
    InstanceLock(const InstanceLock&) = delete;
    InstanceLock& operator=(const InstanceLock&) = delete;

    bool acquired() const { return acquired_; }
    // Another process holds the lock: an agent of this user runs.
    bool heldElsewhere() const { return !acquired_ && error_ == 0; }
    // Why there is no lock at all (errno: the file cannot be opened or made, or the file
    // system cannot lock); 0 when acquired or held elsewhere.
    int error() const { return error_; }
    // The pid written by the holder, 0 when unknown.
    long holderPid() const { return holder_; }

  private:
    int fd_ = -1;
    bool acquired_ = false;
    int error_ = 0;
    long holder_ = 0;
};

}  // namespace corvi
