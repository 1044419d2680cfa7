#pragma once

#include <QObject>
#include <QPointer>
#include <QString>
#include <QUrl>
#include <functional>
#include <memory>
#include <optional>

#include "capture/Vocabulary.h"
#include "model/AppModel.h"
#include "platform/Accessibility.h"
#include "platform/ActiveWindow.h"
#include "platform/AdminAuth.h"
#include "platform/Clock.h"
#include "platform/CpuTimeSource.h"
#include "platform/IdleMonitor.h"
#include "shell/Gate.h"
#include "shell/PasscodePrompt.h"

class QSessionManager;
class QTimer;

namespace corvi {

struct Sample;
class AgentBus;
class PermissionWindowController;
class Sampler;
class SettingsPopoverController;
class StatusMenu;
class Store;
class Syncer;
class Updater;

// Owns everything for the life of the process and wires it together: the model, the store,
// the sampler, the uploader, the tray menu and the authorization gate. Main thread only.
// What the agent reads the desktop and asks the person through. Tests and benchmarks hand
// in their own; system() is the real desktop.
struct AgentServices {
    std::unique_ptr<ActiveWindow> window;
    std::unique_ptr<IdleMonitor> idle;
    std::unique_ptr<Accessibility> accessibility;
    std::unique_ptr<CpuTimeSource> cpu;
    std::unique_ptr<AdminAuth> adminAuth;
    std::unique_ptr<PasscodePrompt> passcodePrompt;
    std::unique_ptr<Clock> clock;
    std::function<void(const QUrl&)> openUrl;  // the default browser
    static AgentServices system();
};

struct AgentTiming {
    double sampleInterval = 3.0;
    double syncInterval = 60.0;
    double permissionReminder = 60.0;
    // How long a logout's grant to quit lasts.
    double logoutGrace = 30.0;
};

class AppDelegate : public QObject {
    Q_OBJECT
  public:
    // Creates the model and the store (which opens the database).
    AppDelegate();
    AppDelegate(AgentServices services, AgentTiming timing);
    ~AppDelegate() override;

    // The launch sequence, once the event loop runs.
    void applicationDidFinishLaunching();
    // The one termination request: the menu's quit, SIGTERM, SIGINT and logout all come here.
    // Quits the event loop when the gate grants it (or granted it before); else nothing changes.
    void requestTermination();
    // Passes the gate once per run; true means terminate now.
    bool applicationShouldTerminate();
    // A logout's request to end the agent (`mayAsk`: the session manager lets the prompt show).
    // True when the logout may end the agent.
    bool logoutShouldTerminate(bool mayAsk);
    // Last work before exit: the open session is written once more.
    void applicationWillTerminate();
    // A newer program was installed under the agent: it ends with supervision::restartStatus,
    // the open session written, and the new version takes over.
    void programReplaced(const QString& version);

    bool autoriza(GuardedAction action);

    void setupMenu();
    void refreshIcon();

    // Menu actions.
    void menuWillOpen();
    void openSettings();
    void togglePause();
    void installUpdate();
    void quit();

    // Opens the settings from outside the tray: a second start, the first run.
    void presentSettings();
    // The permission window's step 1 and the Status page's Grant button: the platform's own
    // request, then the desktop's own place to grant it, else the service's help page for
    // this platform.
    void grantPermission();
    void showPermissionWhenSettled();

    // The label the menu shows for an activity state (Portuguese in both languages).
    static QString activityLabel(ActivityState state);

    AppModel& model() { return model_; }
    Store& store() { return *store_; }
    Sampler* sampler() const { return sampler_.get(); }
    Syncer* syncer() const { return syncer_.get(); }
    Updater* updater() const { return updater_.get(); }
    StatusMenu* statusMenu() const { return statusMenu_; }
    SettingsPopoverController* settings() const { return settings_.get(); }
    PermissionWindowController* permission() const { return permission_.get(); }
    QTimer* nagTimer() const { return nagTimer_; }
    bool quitAuthorized() const { return quitAuthorized_; }

  private:
    void handleSample(const Sample& sample);
    void commitDataRequest(QSessionManager& manager);
    void publishOnBus();
    void followPackage();
    void modelChanged();

    AgentServices services_;
    AgentTiming timing_;
    AppModel model_;
    std::unique_ptr<Store> store_;
    std::unique_ptr<Gate> gate_;
    std::unique_ptr<Updater> updater_;
    std::unique_ptr<Sampler> sampler_;
    std::unique_ptr<Syncer> syncer_;
    std::unique_ptr<SettingsPopoverController> settings_;
    std::unique_ptr<PermissionWindowController> permission_;
    StatusMenu* statusMenu_ = nullptr;  // a child
    QTimer* nagTimer_ = nullptr;        // a child
    AgentBus* bus_ = nullptr;           // a child
    std::optional<QString> pendingUpdateVersion_;
    bool quitAuthorized_ = false;
    bool prompting_ = false;
    bool refreshQueued_ = false;
    bool wasConfigured_ = false;
};

}  // namespace corvi
