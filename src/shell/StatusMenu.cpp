#include "shell/StatusMenu.h"

#include <QAction>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusInterface>
#include <QDBusServiceWatcher>
#include <QGuiApplication>
#include <QIcon>
#include <QMenu>
#include <QSystemTrayIcon>
#include <QWidgetAction>

#include "model/AppModel.h"
#include "platform/XEmbedTray.h"
#include "ui/CorviIcon.h"
#include "ui/MenuStatusView.h"
#include "ui/Theme.h"

namespace corvi {
namespace {

const QString kWatcher = QStringLiteral("org.kde.StatusNotifierWatcher");
const QString kWatcherPath = QStringLiteral("/StatusNotifierWatcher");
const QString kHostRegistered = QStringLiteral("StatusNotifierHostRegistered");

QString pick(const AppModel& model, const char* pt, const char* en) {
    return QString::fromUtf8(model.lang() == QLatin1String("pt") ? pt : en);
}

QColor iconDot(AppModel::IconState state) {
    switch (state) {
        case AppModel::IconState::tracking:
            return QColor(47, 158, 47);
        case AppModel::IconState::noPermission:
            return Theme::yellowNS();
        case AppModel::IconState::paused:
            break;
    }
    return Theme::inactiveNS();
}

QColor statusDot(AppModel::IconState state) {
    switch (state) {
        case AppModel::IconState::tracking:
            return Theme::green();
        case AppModel::IconState::noPermission:
            return Theme::yellow();
        case AppModel::IconState::paused:
            break;
    }
    return Theme::inactive();
}

// Desktops that ship only symbolic icons still name them; a missing icon leaves the item bare.
QIcon themeIcon(const char* name) {
    const QString n = QString::fromLatin1(name);
    if (QIcon::hasThemeIcon(n)) return QIcon::fromTheme(n);
    return QIcon::fromTheme(n + QStringLiteral("-symbolic"));
}

}  // namespace

StatusMenu::StatusMenu(QObject* parent) : QObject(parent) {
    // A bare window manager names no icon theme and Qt then looks only in hicolor, which has
    // none of the menu's icons; a full theme keeps them there too.
    if (!QIcon::hasThemeIcon(QStringLiteral("system-shutdown")) &&
        !QIcon::hasThemeIcon(QStringLiteral("system-shutdown-symbolic")) &&
        (QIcon::themeName().isEmpty() || QIcon::themeName() == QLatin1String("hicolor")))
        QIcon::setThemeName(QStringLiteral("Tango"));
    menu_ = new QMenu();
    QFont font = menu_->font();
    font.setPixelSize(14);
    menu_->setFont(font);

    statusView_ = new MenuStatusView();
    auto* statusLine = new QWidgetAction(menu_);
    statusLine->setDefaultWidget(statusView_);
    menu_->addAction(statusLine);
    menu_->addSeparator();
    ajustesItem_ =
        menu_->addAction(themeIcon("preferences-system"), QString(), this, &StatusMenu::openSettings);
    ajustesItem_->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Comma));
    menu_->addSeparator();
    pauseItem_ =
        menu_->addAction(themeIcon("media-playback-pause"), QString(), this, &StatusMenu::togglePause);
    updateItem_ =
        menu_->addAction(themeIcon("software-update-available"), QString(), this, &StatusMenu::installUpdate);
    updateItem_->setVisible(false);
    sairItem_ = menu_->addAction(themeIcon("system-shutdown"), QString(), this, &StatusMenu::quit);
    sairItem_->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Q));
    connect(menu_, &QMenu::aboutToShow, this, &StatusMenu::menuWillOpen);

    if (trayHostPresent()) {
        makeStatusItem();
        return;
    }
    QDBusConnection bus = QDBusConnection::sessionBus();
    hostWatch_ = new QDBusServiceWatcher(kWatcher, bus, QDBusServiceWatcher::WatchForRegistration, this);
    connect(hostWatch_, &QDBusServiceWatcher::serviceRegistered, this, &StatusMenu::hostMayHaveArrived);
    // A watcher can come up before its host (a panel's own watcher, a desktop's daemon).
    bus.connect(QString(), kWatcherPath, kWatcher, kHostRegistered, this, SLOT(hostMayHaveArrived()));
    if (QGuiApplication::platformName() == QLatin1String("xcb"))
        trayArrival_ = std::make_unique<XEmbedTrayArrival>([this] {
            QMetaObject::invokeMethod(this, &StatusMenu::hostMayHaveArrived, Qt::QueuedConnection);
        });
    // One may have come while the watches were set up.
    hostMayHaveArrived();
}

StatusMenu::~StatusMenu() {
    delete menu_;
}

bool StatusMenu::trayHostPresent() {
    if (QGuiApplication::platformName() == QLatin1String("xcb") && xembedTrayPresent()) return true;
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.interface() || !bus.interface()->isServiceRegistered(kWatcher)) return false;
    // Asked as Qt asks it, on the same connection, so Qt finds the same answer.
    QDBusInterface watcher(kWatcher, kWatcherPath, kWatcher, bus);
    return watcher.isValid() && watcher.property("IsStatusNotifierHostRegistered").toBool();
}

bool StatusMenu::iconShown() const {
    // Qt's own isSystemTrayAvailable() would settle its choice of tray for good.
    return statusItem_ && statusItem_->isVisible() && trayHostPresent();
}

void StatusMenu::hostMayHaveArrived() {
    if (statusItem_ || !trayHostPresent()) return;
    hostWatch_->deleteLater();  // this may run inside its signal
    hostWatch_ = nullptr;
    QDBusConnection::sessionBus().disconnect(QString(), kWatcherPath, kWatcher, kHostRegistered, this,
                                             SLOT(hostMayHaveArrived()));
    trayArrival_.reset();
    makeStatusItem();
}

void StatusMenu::makeStatusItem() {
    statusItem_ = new QSystemTrayIcon(this);
    statusItem_->setContextMenu(menu_);
    // A left click opens the same menu, as a click on the status item does elsewhere. A Wayland
    // client cannot place a menu of its own at a panel's icon (it would open as a window), so
    // there the click opens the settings, and the panel shows this menu on a right click.
    connect(statusItem_, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason != QSystemTrayIcon::Trigger) return;
        if (QGuiApplication::platformName().startsWith(QLatin1String("wayland")))
            emit openSettings();
        else
            menu_->popup(QCursor::pos());
    });
    if (!icon_.isNull()) statusItem_->setIcon(icon_);
    statusItem_->setToolTip(toolTip_);
    if (shown_) statusItem_->show();
}

void StatusMenu::show() {
    shown_ = true;
    if (statusItem_) statusItem_->show();
}

QString StatusMenu::tooltip(const AppModel& model) {
    switch (model.iconState()) {
        case AppModel::IconState::tracking:
            return QStringLiteral("Corvimetry");
        case AppModel::IconState::noPermission:
            return pick(model, "Corvimetry - falta a permissão de Acessibilidade",
                        "Corvimetry - missing Accessibility permission");
        case AppModel::IconState::paused:
            break;
    }
    return pick(model, "Corvimetry - coleta pausada", "Corvimetry - tracking paused");
}

QString StatusMenu::stateText(const AppModel& model) {
    switch (model.iconState()) {
        case AppModel::IconState::tracking:
            return pick(model, "Coletando", "Tracking");
        case AppModel::IconState::noPermission:
            return pick(model, "Sem permissão", "No permission");
        case AppModel::IconState::paused:
            break;
    }
    return pick(model, "Pausado", "Paused");
}

void StatusMenu::refresh(const AppModel& model, const std::optional<QString>& pendingUpdateVersion) {
    const AppModel::IconState state = model.iconState();
    // Redrawn only when it would look different: a tray host repaints (or a D-Bus tray sends
    // a signal) for every new icon, and this runs every few seconds.
    const bool dark = Theme::isDark();
    if (!drawnState_ || *drawnState_ != state || drawnDark_ != dark) {
        icon_ = CorviIcon::statusIcon(iconDot(state));
        if (statusItem_) statusItem_->setIcon(icon_);
        drawnState_ = state;
        drawnDark_ = dark;
    }
    const QString tip = tooltip(model);
    if (toolTip_ != tip) {
        toolTip_ = tip;
        if (statusItem_) statusItem_->setToolTip(tip);
    }
    statusView_->setState(statusDot(state), stateText(model), model.serverReachable());

    ajustesItem_->setText(pick(model, "Ajustes…", "Settings…"));
    const bool paused = model.paused();
    pauseItem_->setText(paused ? pick(model, "Retomar coleta", "Resume tracking")
                               : pick(model, "Pausar coleta", "Pause tracking"));
    if (!iconsSet_ || paused != lastPaused_)
        pauseItem_->setIcon(themeIcon(paused ? "media-playback-start" : "media-playback-pause"));
    iconsSet_ = true;
    lastPaused_ = paused;
    if (pendingUpdateVersion) {
        updateItem_->setText(pick(model, "Nova versão ", "New version ") + *pendingUpdateVersion);
        updateItem_->setVisible(true);
    } else {
        updateItem_->setVisible(false);
    }
    sairItem_->setText(pick(model, "Sair", "Quit"));
}

}  // namespace corvi
