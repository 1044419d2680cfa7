#include "shell/AppDelegate.h"

#include <QApplication>
#include <QSessionManager>
#include <QSettings>
#include <QStandardPaths>
#include <QSystemTrayIcon>
#include <QTimer>

#include "capture/Sampler.h"
#include "platform/Accessibility.h"
#include "platform/ActiveWindow.h"
#include "platform/AdminAuth.h"
#include "platform/Clock.h"
#include "platform/CpuTimeSource.h"
#include "platform/IdleMonitor.h"
#include "platform/Log.h"
#include "server/Syncer.h"
#include "shell/PasscodePrompt.h"
#include "shell/StatusMenu.h"
#include "store/Store.h"
#include "ui/Appearance.h"

namespace corvi {

AgentServices AgentServices::system() {
    AgentServices s;
    s.window = makeActiveWindow();
    s.idle = makeIdleMonitor();
    s.accessibility = makeAccessibility();
    s.cpu = makeCpuTimeSource();
    s.adminAuth = makeAdminAuth();
    s.passcodePrompt = std::make_unique<PasscodePrompt>();
    s.clock = std::make_unique<SystemClock>();
    return s;
}

AppDelegate::AppDelegate() : AppDelegate(AgentServices::system(), AgentTiming{}) {}

AppDelegate::AppDelegate(AgentServices services, AgentTiming timing)
    : services_(std::move(services)),
      timing_(timing),
      store_(std::make_unique<Store>()),
      gate_(std::make_unique<Gate>(model_, *services_.passcodePrompt, *services_.adminAuth)) {
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
    // The settings popover and the permission window are created here once they exist.
    setupMenu();

    model_.setAccessibilityOK(services_.accessibility->trusted());
    // The permission window (shown here, and by a 60-second reminder) comes with its own work.
    if (!model_.accessibilityOK()) services_.accessibility->trustedWithPrompt();

    sampler_ = std::make_unique<Sampler>(*store_, timing_.sampleInterval, *services_.window, *services_.idle,
                                         *services_.clock, std::move(services_.cpu));
    QPointer<AppDelegate> self(this);
    sampler_->onUpdate = [self](const Sample& sample) {
        if (self) self->handleSample(sample);
    };
    sampler_->isPaused = [self] { return self && self->model_.paused(); };
    sampler_->start();

    syncer_ = std::make_unique<Syncer>(*store_, model_, timing_.syncInterval);
    syncer_->start();

    // Queued, so the handler sees the value the model has just stored.
    // Delivered on a later turn of the loop, so the handler sees the stored value; the several
    // fields a sample or an upload sets in one go cost one refresh.
    connect(&model_, &AppModel::aboutToChange, this, [this] {
        if (refreshQueued_) return;
        refreshQueued_ = true;
        QMetaObject::invokeMethod(
            this,
            [this] {
                refreshQueued_ = false;
                refreshIcon();
            },
            Qt::QueuedConnection);
    });
    model_.refreshIdentity();
    refreshIcon();
    Log::line(QStringLiteral("CorviAgent iniciado. DB: ") + store_->path());
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
        if (!QSystemTrayIcon::isSystemTrayAvailable() || !self->statusMenu_->statusItem()->isVisible())
            Log::line(QStringLiteral("CorviAgent: ícone da barra de menus está oculto (barra cheia/notch)"));
    });
    connect(statusMenu_, &StatusMenu::menuWillOpen, this, &AppDelegate::menuWillOpen);
    connect(statusMenu_, &StatusMenu::openSettings, this, &AppDelegate::openSettings);
    connect(statusMenu_, &StatusMenu::togglePause, this, &AppDelegate::togglePause);
    connect(statusMenu_, &StatusMenu::installUpdate, this, &AppDelegate::installUpdate);
    connect(statusMenu_, &StatusMenu::quit, this, &AppDelegate::quit);
    // The trace is drawn in the text colour of the current appearance.
    connect(Appearance::instance(), &Appearance::changed, this, &AppDelegate::refreshIcon);
    // The updater reports a waiting version here once it exists.
    refreshIcon();
    statusMenu_->show();
}

void AppDelegate::refreshIcon() {
    if (statusMenu_) statusMenu_->refresh(model_, pendingUpdateVersion_);
}

void AppDelegate::menuWillOpen() {
    model_.refreshIdentity();
}

void AppDelegate::openSettings() {
    // The settings popover opens here, behind the gate, once it exists.
}

void AppDelegate::togglePause() {
    const bool wasPaused = model_.paused();
    if (!wasPaused && !autoriza(GuardedAction::pause)) return;
    model_.setPaused(!wasPaused);
}

void AppDelegate::installUpdate() {
    // The updater's foreground check runs here once it exists.
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
