#pragma once

namespace corvi {

// Per-request transfer timeouts of the server link, in milliseconds. Process-wide so tests
// can shorten them; the agent keeps the defaults.
struct ServerTimeouts {
    int signInMs = 12000;    // sign-in and enrollment
    int identityMs = 10000;  // identity refresh
    int uploadMs = 30000;    // session upload
};

ServerTimeouts& serverTimeouts();

}  // namespace corvi
