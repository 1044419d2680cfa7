#pragma once

#include <memory>

namespace corvi {

// Seconds since the last user input (finite, 0 when unknown) and the screen-lock state
// (false when unknown).
class IdleMonitor {
  public:
    virtual ~IdleMonitor() = default;
    virtual double idleSeconds() = 0;
    virtual bool screenLocked() = 0;
};

}  // namespace corvi
