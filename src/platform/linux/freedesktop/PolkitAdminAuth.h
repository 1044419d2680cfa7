#pragma once

#include "platform/AdminAuth.h"

namespace corvi {

// polkit's CheckAuthorization on the system bus, for this process, with user interaction allowed.
class PolkitAdminAuth final : public AdminAuth {
  public:
    static constexpr int defaultTimeoutMs = 5 * 60 * 1000;

    // An empty bus address means the system bus; tests hand in a private bus and a short timeout.
    explicit PolkitAdminAuth(QString busAddress = {}, int timeoutMs = defaultTimeoutMs);

    bool authenticate(const QString& actionId) override;

    // Field 22 of /proc/self/stat (clock ticks since boot), 0 if unreadable.
    static quint64 processStartTime();

  private:
    QString busAddress_;
    int timeoutMs_;
};

}  // namespace corvi
