#pragma once

#include <optional>

#include "platform/LoginItem.h"

namespace corvi {

// The login item as an XDG autostart entry of the user:
// $XDG_CONFIG_HOME/autostart/tech.stonefold.corvimetry.agent.desktop. An installed agent's
// entry runs the user service's starter, as the machine-wide entry does: the two share a
// name, so the user's shadows the machine's, and either way the service supervises the agent.
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
    // An entry that starts the program itself (as earlier versions wrote it) is made to run
    // the starter, keeping its other keys.
    bool upgradeItem(QString& error) override;

    // Where the user's entry lives, worked out on every call from XDG_CONFIG_HOME.
    QString entryPath() const;

    // What the entry runs: the starter where it is installed beside this program, else the
    // program itself.
    QString launcher() const;

    // Seams for tests: this program, its starter, the system-wide path, the installed answer.
    void setProgram(const QString& path) { program_ = path; }
    QString program() const { return program_; }
    void setStarter(const QString& path) { starter_ = path; }
    void setSystemWideEntryPath(const QString& path) { systemWidePath_ = path; }
    void forceInstalled(std::optional<bool> installed) { forcedInstalled_ = installed; }

    // The program an Exec= value starts (its first argument, unquoted), empty if unparsable.
    static QString programOfExec(const QString& exec);
    static QString execFor(const QString& program);
    static QString tryExecFor(const QString& program);

  private:
    bool write(const QString& text, QString& error) const;

    QString program_;
    QString starter_;
    QString systemWidePath_ = QString::fromLatin1(systemWideEntry);
    std::optional<bool> forcedInstalled_;
};

}  // namespace corvi
