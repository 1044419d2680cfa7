#include "shell/SettingsPopoverController.h"

#include <QCursor>
#include <QEvent>
#include <QGuiApplication>
#include <QScreen>
#include <QSystemTrayIcon>
#include <QVBoxLayout>
#include <QWidget>

#include "model/AppModel.h"

namespace corvi {

SettingsPopoverController::SettingsPopoverController(AppModel& model, SettingsHooks hooks,
                                                     std::function<bool()> authorize, QObject* parent)
    : QObject(parent), model_(model), hooks_(std::move(hooks)), authorize_(std::move(authorize)) {}

QWidget* SettingsPopoverController::popover() {
    if (popover_) return popover_;
    // Made at the first opening: an agent whose settings are never opened keeps none of it.
    popover_ = new QWidget(nullptr, Qt::Popup | Qt::FramelessWindowHint);
    popover_->setWindowTitle(QStringLiteral("Corvimetry"));
    auto* layout = new QVBoxLayout(popover_);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSizeConstraint(QLayout::SetFixedSize);
    view_ = new SettingsView(model_, hooks_, popover_);
    layout->addWidget(view_);
    popover_->installEventFilter(this);
    return popover_;
}

SettingsView* SettingsPopoverController::view() {
    popover();
    return view_;
}

SettingsPopoverController::~SettingsPopoverController() {
    if (!popover_) return;
    popover_->removeEventFilter(this);
    delete popover_;
}

bool SettingsPopoverController::isShown() const {
    return popover_ && popover_->isVisible();
}

bool SettingsPopoverController::mayOpen() {
    if (!model_.configured() || model_.settingsUnlocked()) return true;
    if (!authorize_ || !authorize_()) return false;
    model_.setSettingsUnlocked(true);
    return true;
}

void SettingsPopoverController::toggle(const QSystemTrayIcon* button) {
    if (isShown()) {
        popover_->close();
        return;
    }
    if (!button) return;
    popover();
    if (!mayOpen()) return;
    // Wayland lets no client place a popup by screen position: a titled window, centred.
    if (QGuiApplication::platformName().startsWith(QLatin1String("wayland"))) return showAt({}, false);
    const QRect icon = button->geometry();
    showAt(icon.isValid() && !icon.isEmpty() ? icon : QRect(QCursor::pos(), QSize(1, 1)), true);
}

void SettingsPopoverController::present(const QSystemTrayIcon* button) {
    if (isShown()) {
        if (popover_->isMinimized()) popover_->showNormal();
        popover_->raise();
        popover_->activateWindow();
        return;
    }
    if (!mayOpen()) return;
    const QRect icon = button && button->isVisible() ? button->geometry() : QRect();
    showAt(icon, icon.isValid() && !icon.isEmpty());
}

void SettingsPopoverController::showAt(const QRect& anchor, bool popup) {
    popover();
    popover_->setWindowFlags(popup ? Qt::Popup | Qt::FramelessWindowHint
                                   : Qt::Window | Qt::WindowTitleHint | Qt::WindowCloseButtonHint |
                                         Qt::CustomizeWindowHint);
    popover_->adjustSize();
    const QSize size = popover_->size();
    QScreen* screen = QGuiApplication::screenAt(popup ? anchor.center() : QCursor::pos());
    if (!screen) screen = QGuiApplication::primaryScreen();
    const QRect area = screen ? screen->availableGeometry() : QRect(QPoint(0, 0), size);
    QPoint at;
    if (popup) {
        // Below the icon, centred on it; above it when a bottom panel leaves no room below.
        at = QPoint(anchor.center().x() - size.width() / 2, anchor.bottom() + 1);
        if (at.y() + size.height() > area.bottom() && anchor.top() - size.height() >= area.top())
            at.setY(anchor.top() - size.height());
    } else {
        at = area.center() - QPoint(size.width() / 2, size.height() / 2);
    }
    at.setX(qBound(area.left(), at.x(), qMax(area.left(), area.right() + 1 - size.width())));
    at.setY(qBound(area.top(), at.y(), qMax(area.top(), area.bottom() + 1 - size.height())));
    popover_->move(at);
    popover_->show();
    // The fields take the keyboard at once.
    popover_->raise();
    popover_->activateWindow();
}

void SettingsPopoverController::popoverDidClose() {
    model_.setSettingsUnlocked(false);
}

bool SettingsPopoverController::eventFilter(QObject* watched, QEvent* event) {
    if (watched == popover_ && event->type() == QEvent::Hide && !event->spontaneous()) popoverDidClose();
    return false;
}

}  // namespace corvi
