#pragma once

#include <QString>
#include <memory>

namespace corvi {

// Asks the system whether an administrator grants a guarded action. Blocks the caller while
// the person answers; nothing is remembered between requests.
class AdminAuth {
  public:
    virtual ~AdminAuth() = default;
    // `actionId` names the system's action, which carries the reason text shown to the person.
    // Yes exactly when the system granted it; any failure or refusal is no.
    virtual bool authenticate(const QString& actionId) = 0;
};

// The platform's administrator prompt (polkit on the system bus).
std::unique_ptr<AdminAuth> makeAdminAuth();

}  // namespace corvi
