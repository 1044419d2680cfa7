#pragma once

#include <optional>

#include "platform/LoginItem.h"

namespace corvi {

// The login item as an XDG autostart entry of the user:
// $XDG_CONFIG_HOME/autostart/tech.stonefold.corvimetry.agent.desktop.
class XdgLoginItem final : public LoginItem {
  public:
    // Installed for every user by the package; its presence alone matters.
    static constexpr const char* systemWideEntry =
        "/etc/xdg/autostart/tech.stonefold.corvimetry.agent.desktop";
    static constexpr const char* entryName = "tech.stonefold.corvimetry.agent.desktop";

    XdgLoginItem();

    bool installedProgram() const override;
    bool systemWideEntryPresent() const override;
    Status status() const override;
    bool registerItem(QString& error) override;
    bool unregisterItem(QString& error) override;

    // Where the user's entry lives, worked out on every call from XDG_CONFIG_HOME.
    QString entryPath() const;

    // Seams for tests: the program the entry starts, the system-wide path, the installed answer.
    void setProgram(const QString& path) { program_ = path; }
    QString program() const { return program_; }
    void setSystemWideEntryPath(const QString& path) { systemWidePath_ = path; }
    void forceInstalled(std::optional<bool> installed) { forcedInstalled_ = installed; }

    // The program an Exec= value starts (its first argument, unquoted), empty if unparsable.
    static QString programOfExec(const QString& exec);
    static QString execFor(const QString& program);

  private:
    QString program_;
    QString systemWidePath_ = QString::fromLatin1(systemWideEntry);
    std::optional<bool> forcedInstalled_;
};

}  // namespace corvi
