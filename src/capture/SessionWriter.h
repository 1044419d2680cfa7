#pragma once

#include <cstdint>

#include "capture/SessionRow.h"

namespace corvi {

// What the sampler needs of the store: one insert when a session opens (its id, or -1 when
// the insert failed) and a rewrite of the growing fields afterwards (an id below 1 is ignored).
class SessionWriter {
  public:
    virtual ~SessionWriter() = default;
    virtual std::int64_t openSession(const SessionRow& row) = 0;
    virtual void updateSession(std::int64_t id, const SessionRow& row) = 0;
};

}  // namespace corvi
