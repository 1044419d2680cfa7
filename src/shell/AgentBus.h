#pragma once

#include <QDBusContext>
#include <QObject>
#include <QString>
#include <functional>
#include <optional>

namespace corvi {

// The running agent's name on the session bus. A second start of the program (the application
// menu, a terminal, `--sign-in`) asks the running agent through it, so one agent owns the model
// and config.json. Only callers of this user are served.
class AgentBus : public QObject, protected QDBusContext {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "tech.stonefold.corvimetry.Agent")
  public:
    using SignInDone = std::function<void(bool ok, const QString& message)>;

    static constexpr const char* service = "tech.stonefold.corvimetry.agent";
    static constexpr const char* path = "/tech/stonefold/corvimetry/Agent";
    static constexpr const char* interface = "tech.stonefold.corvimetry.Agent";

    explicit AgentBus(QObject* parent = nullptr);
    ~AgentBus() override;

    // Claims the name on the session bus; false when there is no bus or the name is taken.
    bool publish();

    std::function<void()> onOpenSettings;
    // Must call `done` once, later or at once; on success the message is the server address.
    std::function<void(const QString& server, const QString& email, const QString& password, SignInDone done)>
        onSignIn;

    // The second start's side. How long to wait for a running agent that is still starting.
    static bool askOpenSettings(int waitMs = 3000);
    // The sign-in's outcome, or nothing when no running agent answered.
    static std::optional<std::pair<bool, QString>> askSignIn(const QString& server, const QString& email,
                                                             const QString& password, int waitMs = 3000);

  public slots:
    Q_SCRIPTABLE void OpenSettings();
    Q_SCRIPTABLE bool SignIn(const QString& server, const QString& email, const QString& password,
                             QString& message);

  private:
    bool callerIsThisUser();
    bool published_ = false;
};

}  // namespace corvi
