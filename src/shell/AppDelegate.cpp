#include "shell/AppDelegate.h"

#include <QApplication>
#include <QDesktopServices>
#include <QSessionManager>
#include <QSettings>
#include <QStandardPaths>
#include <QTimer>

#include "BuildConfig.h"
#include "capture/Sampler.h"
#include "platform/Accessibility.h"
#include "platform/ActiveWindow.h"
#include "platform/AdminAuth.h"
#include "platform/Clock.h"
#include "platform/CpuTimeSource.h"
#include "platform/IdleMonitor.h"
#include "platform/Log.h"
#include "platform/Probes.h"
#include "platform/LoginItem.h"
#include "server/Syncer.h"
#include "shell/AgentBus.h"
#include "shell/PasscodePrompt.h"
#include "shell/PermissionWindowController.h"
#include "shell/ProgramWatch.h"
#include "shell/SettingsPopoverController.h"
#include "shell/StatusMenu.h"
#include "shell/Supervision.h"
#include "shell/Updater.h"
#include "store/Store.h"
#include "ui/Appearance.h"

namespace corvi {

AgentServices AgentServices::system() {
    AgentServices s;
    Probes probes = makeProbes();
    s.window = std::move(probes.window);
    s.idle = std::move(probes.idle);
    s.accessibility = std::move(probes.accessibility);
    s.cpu = makeCpuTimeSource();
    s.adminAuth = makeAdminAuth();
    s.passcodePrompt = std::make_unique<PasscodePrompt>();
    s.clock = std::make_unique<SystemClock>();
    s.openUrl = [](const QUrl& url) { QDesktopServices::openUrl(url); };
    return s;
}

AppDelegate::AppDelegate() : AppDelegate(AgentServices::system(), AgentTiming{}) {}

AppDelegate::AppDelegate(AgentServices services, AgentTiming timing)
    : services_(std::move(services)),
      timing_(timing),
      store_(std::make_unique<Store>()),
      gate_(std::make_unique<Gate>(model_, *services_.passcodePrompt, *services_.adminAuth)),
      updater_(std::make_unique<Updater>(
          UpdaterSettings::fromBuild(model_.loginItem() && model_.loginItem()->installedProgram()), model_)) {
    if (!services_.openUrl) services_.openUrl = [](const QUrl&) {};
    if (auto* app = qobject_cast<QGuiApplication*>(QCoreApplication::instance())) {
        connect(app, &QCoreApplication::aboutToQuit, this, &AppDelegate::applicationWillTerminate);
        connect(app, &QGuiApplication::commitDataRequest, this, &AppDelegate::commitDataRequest,
                Qt::DirectConnection);
    }
}

AppDelegate::~AppDelegate() = default;

QString AppDelegate::activityLabel(ActivityState state) {
    switch (state) {
        case ActivityState::working:
            return QStringLiteral("Trabalhando");
        case ActivityState::rendering:
            return QStringLiteral("Exportando");
        case ActivityState::communication:
            return QStringLiteral("Comunicação");
        case ActivityState::offtask:
            return QStringLiteral("Disperso");
        case ActivityState::idle:
            return QStringLiteral("Ausente");
        case ActivityState::locked:
            break;
    }
    return QStringLiteral("Bloqueado");
}

void AppDelegate::applicationDidFinishLaunching() {
    model_.load();
    model_.applyLaunchAtLogin();
    QPointer<AppDelegate> self(this);
    SettingsHooks hooks;
    hooks.defaultServer = QString::fromUtf8(build::defaultServer);
    hooks.webAddress = QString::fromUtf8(build::webAddress);
    hooks.grant = [self] {
        if (self) self->grantPermission();
    };
    hooks.machineWideAutostart = [self] {
        return self && self->model_.loginItem() && self->model_.loginItem()->systemWideEntryPresent();
    };
    hooks.openUrl = services_.openUrl;
    settings_ = std::make_unique<SettingsPopoverController>(model_, std::move(hooks), [self] {
        return self && self->autoriza(GuardedAction::settings);
    });
    permission_ = std::make_unique<PermissionWindowController>(model_, *services_.accessibility, [self] {
        if (self) self->grantPermission();
    });
    setupMenu();

    model_.setAccessibilityOK(services_.accessibility->trusted());
    if (!model_.accessibilityOK()) {
        services_.accessibility->trustedWithPrompt();
        showPermissionWhenSettled();
    }
    nagTimer_ = new QTimer(this);
    nagTimer_->setInterval(int(timing_.permissionReminder * 1000));
    connect(nagTimer_, &QTimer::timeout, this, [this] {
        if (!model_.accessibilityOK() && !permission_->isOnScreen()) permission_->show();
    });
    nagTimer_->start();

    sampler_ = std::make_unique<Sampler>(*store_, timing_.sampleInterval, *services_.window, *services_.idle,
                                         *services_.clock, std::move(services_.cpu));
    sampler_->onUpdate = [self](const Sample& sample) {
        if (self) self->handleSample(sample);
    };
    sampler_->isPaused = [self] { return self && self->model_.paused(); };
    sampler_->start();

    syncer_ = std::make_unique<Syncer>(*store_, model_, timing_.syncInterval);
    syncer_->start();

    // Delivered on a later turn of the loop, so the handler sees the stored value; the several
    // fields a sample or an upload sets in one go cost one refresh.
    wasConfigured_ = model_.configured();
    connect(&model_, &AppModel::aboutToChange, this, [this] {
        if (refreshQueued_) return;
        refreshQueued_ = true;
        QMetaObject::invokeMethod(this, &AppDelegate::modelChanged, Qt::QueuedConnection);
    });
    model_.refreshIdentity();
    refreshIcon();
    Log::line(QStringLiteral("CorviAgent iniciado. DB: ") + store_->path());
    publishOnBus();
    if (model_.loginItem() && model_.loginItem()->installedProgram()) followPackage();
    // A new install is never silently unenrolled: the sign-in form shows once by itself.
    // A window of its own, centred: a popup would vanish at the first click elsewhere.
    if (!model_.configured()) settings_->present(nullptr);
}

void AppDelegate::followPackage() {
    const QString program = QCoreApplication::applicationFilePath();
    auto* watch = new ProgramWatch(program, this);
    connect(watch, &ProgramWatch::replaced, this, &AppDelegate::programReplaced);
    connect(watch, &ProgramWatch::removed, this, [program] {
        Log::line(QStringLiteral("CorviAgent: %1 foi removido; este agente segue até o fim da sessão")
                      .arg(program));
    });
}

void AppDelegate::programReplaced(const QString& version) {
    // Only an administrator can have installed it: that install was the authorization, so the
    // gate is not asked.
    Log::line(QStringLiteral("CorviAgent: versão %1 instalada; reiniciando").arg(version));
    quitAuthorized_ = true;
    QCoreApplication::exit(supervision::restartStatus);
}

void AppDelegate::modelChanged() {
    refreshQueued_ = false;
    refreshIcon();
    // Just enrolled: what waits goes up now rather than at the next minute.
    const bool configured = model_.configured();
    if (configured && !wasConfigured_) {
        if (syncer_) syncer_->tick();
        // Enrolled from elsewhere (the command line) while the form was open: the form no
        // longer applies, and what follows it is behind the gate.
        if (settings_ && settings_->isShown() && !model_.settingsUnlocked()) settings_->popover()->close();
    }
    wasConfigured_ = configured;
}

void AppDelegate::publishOnBus() {
    bus_ = new AgentBus(this);
    bus_->onOpenSettings = [this] { presentSettings(); };
    bus_->onSignIn = [this](const QString& server, const QString& email, const QString& password,
                            AgentBus::SignInDone done) {
        const bool pt = model_.lang() == u"pt";
        // Binding the agent to another account is a change of settings.
        if (model_.configured() && !autoriza(GuardedAction::settings)) {
            done(false, pt ? QStringLiteral("Autorização negada.") : QStringLiteral("Authorization refused."));
            return;
        }
        QPointer<AppDelegate> self(this);
        model_.loginAndEnroll(server, email, password, [self, pt, done](bool ok, std::optional<QString> message) {
            if (!self) return done(false, QString());
            done(ok, ok ? self->model_.serverURL()
                        : message.value_or(pt ? QStringLiteral("Não foi possível entrar.")
                                              : QStringLiteral("Could not sign in.")));
        });
    };
    if (!bus_->publish()) Log::line(QStringLiteral("CorviAgent: sem o barramento de sessão; uma segunda execução não abre os Ajustes"));
}

void AppDelegate::presentSettings() {
    if (settings_) settings_->present(statusMenu_ ? statusMenu_->statusItem() : nullptr);
}

void AppDelegate::grantPermission() {
    services_.accessibility->trustedWithPrompt();
    if (services_.accessibility->openGrantPlace()) return;
    const QUrl help(QString::fromUtf8(build::webAddress) + QStringLiteral("/help/linux-permission"), QUrl::StrictMode);
    if (help.isValid() && !help.host().isEmpty()) services_.openUrl(help);
}

void AppDelegate::handleSample(const Sample& sample) {
    model_.setAccessibilityOK(services_.accessibility->trusted());
    model_.setCurrentStateLabel(activityLabel(sample.state));
    model_.setPending(store_->pendingCount());
    refreshIcon();
}

void AppDelegate::setupMenu() {
    // Named in full: Qt's own name for an INI file in the user scope ends in ".ini", and it
    // fixes that folder at its first use in the process.
    QSettings defaults(QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
                           QStringLiteral("/CorviAgent/CorviAgent.conf"),
                       QSettings::IniFormat);
    const QString positionKey = QStringLiteral("NSStatusItem Preferred Position Corvimetry");
    if (!defaults.contains(positionKey)) defaults.setValue(positionKey, 220);

    statusMenu_ = new StatusMenu(this);
    QPointer<AppDelegate> self(this);
    QTimer::singleShot(3000, this, [self] {
        if (!self || !self->statusMenu_) return;
        if (!self->statusMenu_->iconShown())
            Log::line(QStringLiteral("CorviAgent: ícone da barra de menus está oculto (barra cheia/notch)"));
    });
    connect(statusMenu_, &StatusMenu::menuWillOpen, this, &AppDelegate::menuWillOpen);
    connect(statusMenu_, &StatusMenu::openSettings, this, &AppDelegate::openSettings);
    connect(statusMenu_, &StatusMenu::togglePause, this, &AppDelegate::togglePause);
    connect(statusMenu_, &StatusMenu::installUpdate, this, &AppDelegate::installUpdate);
    connect(statusMenu_, &StatusMenu::quit, this, &AppDelegate::quit);
    // The trace is drawn in the text colour of the current appearance.
    connect(Appearance::instance(), &Appearance::changed, this, &AppDelegate::refreshIcon);
    updater_->onUpdateAvailable = [self](std::optional<QString> version) {
        if (!self) return;
        self->pendingUpdateVersion_ = std::move(version);
        self->refreshIcon();
    };
    refreshIcon();
    statusMenu_->show();
}

void AppDelegate::refreshIcon() {
    if (statusMenu_) statusMenu_->refresh(model_, pendingUpdateVersion_);
}

void AppDelegate::menuWillOpen() {
    model_.refreshIdentity();
}

// A window that would close again a moment later, taking the focus on the way, is worse than
// none: it waits until the desktop has answered.
void AppDelegate::showPermissionWhenSettled() {
    if (services_.accessibility->settling()) {
        QTimer::singleShot(100, this, &AppDelegate::showPermissionWhenSettled);
        return;
    }
    model_.setAccessibilityOK(services_.accessibility->trusted());
    if (!model_.accessibilityOK()) permission_->show();
}

void AppDelegate::openSettings() {
    // After the menu has closed, so the popover (or the gate's prompt) is not stacked on it.
    QPointer<AppDelegate> self(this);
    QTimer::singleShot(0, this, [self] {
        if (self && self->settings_ && self->statusMenu_) self->settings_->toggle(self->statusMenu_->statusItem());
    });
}

void AppDelegate::togglePause() {
    const bool wasPaused = model_.paused();
    if (!wasPaused && !autoriza(GuardedAction::pause)) return;
    model_.setPaused(!wasPaused);
}

void AppDelegate::installUpdate() {
    updater_->checkForUpdates();
}

void AppDelegate::quit() {
    requestTermination();
}

bool AppDelegate::autoriza(GuardedAction action) {
    // One prompt at a time: a request that arrives while one is open (a SIGTERM during the
    // pause prompt, say) is refused rather than stacked on top, and can be made again.
    if (prompting_) return false;
    prompting_ = true;
    const bool granted = gate_->autoriza(action);
    prompting_ = false;
    return granted;
}

bool AppDelegate::applicationShouldTerminate() {
    if (quitAuthorized_) return true;
    if (!autoriza(GuardedAction::quit)) return false;
    quitAuthorized_ = true;
    return true;
}

void AppDelegate::requestTermination() {
    if (applicationShouldTerminate()) QCoreApplication::quit();
}

void AppDelegate::applicationWillTerminate() {
    if (sampler_) sampler_->flushCurrent();
}

bool AppDelegate::logoutShouldTerminate(bool mayAsk) {
    // Without a chance to ask, logout may not end the agent unless it was granted before.
    if (!mayAsk || quitAuthorized_) return quitAuthorized_;
    if (!applicationShouldTerminate()) return false;
    // Qt signals no cancelled logout (XSMP's ShutdownCancelled has no signal), and a logout that
    // goes on ends the agent through the session manager's Die, not through this gate: the
    // grant need only cover the SIGTERM that follows the same logout, then it is forgotten.
    QTimer::singleShot(qRound(timing_.logoutGrace * 1000), this, [this] { quitAuthorized_ = false; });
    return true;
}

void AppDelegate::commitDataRequest(QSessionManager& manager) {
    const bool mayAsk = manager.allowsInteraction();
    const bool granted = logoutShouldTerminate(mayAsk);
    if (mayAsk) manager.release();
    if (!granted) manager.cancel();
}

}  // namespace corvi
