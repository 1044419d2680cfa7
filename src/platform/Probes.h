#pragma once

#include <memory>

#include "platform/Accessibility.h"
#include "platform/ActiveWindow.h"
#include "platform/IdleMonitor.h"

namespace corvi {

// The three probes of one desktop session. They may share a connection, so they are made
// together.
struct Probes {
    std::unique_ptr<ActiveWindow> window;
    std::unique_ptr<IdleMonitor> idle;
    std::unique_ptr<Accessibility> accessibility;
};

// The probes for the desktop session this process runs in, chosen from its environment.
Probes makeProbes();

}  // namespace corvi
