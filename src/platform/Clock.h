#pragma once

#include <chrono>

namespace corvi {

// Wall-clock time in seconds since 1970, as a double. Tests hand in a clock they move by hand.
class Clock {
  public:
    virtual ~Clock() = default;
    virtual double now() const = 0;
};

class SystemClock final : public Clock {
  public:
    double now() const override {
        using namespace std::chrono;
        return duration<double>(system_clock::now().time_since_epoch()).count();
    }
};

}  // namespace corvi
