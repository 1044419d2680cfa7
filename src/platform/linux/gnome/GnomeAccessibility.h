#pragma once

#include <QDBusConnection>
#include <memory>

#include "platform/Accessibility.h"
#include "platform/linux/gnome/GnomeShellExtension.h"

namespace corvi {

// On GNOME the permission is our Shell extension being enabled and answering. It is granted
// in the Extensions app (or by an administrator's settings); the agent never enables it
// itself.
class GnomeAccessibility : public Accessibility {
  public:
    static constexpr const char* kExtensionsApp = "org.gnome.Extensions";

    GnomeAccessibility(std::shared_ptr<GnomeShellExtension> extension, QDBusConnection bus);

    bool trusted() override;
    bool trustedWithPrompt() override { return trusted(); }
    // Starts the Extensions app through D-Bus activation; false when it is not installed.
    bool openGrantPlace() override;

  private:
    std::shared_ptr<GnomeShellExtension> extension_;
    QDBusConnection bus_;
};

}  // namespace corvi
