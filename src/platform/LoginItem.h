#pragma once

#include <QString>

namespace corvi {

// The user's own "start with my session" registration of the agent, and the two facts that
// decide whether the agent may touch it at all.
class LoginItem {
  public:
    enum class Status { notRegistered, enabled, requiresApproval, notFound };

    virtual ~LoginItem() = default;

    // The running program is an installed one (not a development build).
    virtual bool installedProgram() const = 0;
    // A system-wide autostart entry starts the agent for everyone; then the user's is left alone.
    virtual bool systemWideEntryPresent() const = 0;
    virtual Status status() const = 0;
    // On failure, false with a description in `error`.
    virtual bool registerItem(QString& error) = 0;
    virtual bool unregisterItem(QString& error) = 0;
    // Brings an entry an earlier version wrote up to date, whatever the decision above; false
    // with a description in `error` when it could not.
    virtual bool upgradeItem(QString& error) {
        (void)error;
        return true;
    }
};

// The running platform's login item (one per process).
LoginItem& platformLoginItem();

}  // namespace corvi
