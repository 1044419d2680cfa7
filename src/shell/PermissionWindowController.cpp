#include "shell/PermissionWindowController.h"

#include <QGuiApplication>
#include <QScreen>
#include <QTimer>
#include <QVBoxLayout>
#include <QWidget>

#include "model/AppModel.h"
#include "platform/Accessibility.h"
#include "ui/PermissionView.h"

namespace corvi {

PermissionWindowController::PermissionWindowController(AppModel& model, Accessibility& accessibility,
                                                       std::function<void()> openSystemSettings,
                                                       QObject* parent)
    : QObject(parent),
      model_(model),
      accessibility_(accessibility),
      openSystemSettings_(std::move(openSystemSettings)) {}

PermissionWindowController::~PermissionWindowController() {
    delete window_;
}

bool PermissionWindowController::isOnScreen() const {
    return window_ && window_->isVisible();
}

void PermissionWindowController::show() {
    if (!window_) {
        // Titled and closable only; above ordinary windows, the settings it sends people to included.
        window_ = new QWidget(nullptr, Qt::Window | Qt::WindowTitleHint | Qt::WindowCloseButtonHint |
                                           Qt::CustomizeWindowHint | Qt::WindowStaysOnTopHint);
        auto* layout = new QVBoxLayout(window_);
        layout->setContentsMargins(0, 0, 0, 0);
        layout->setSizeConstraint(QLayout::SetFixedSize);
        view_ = new PermissionView(model_, openSystemSettings_, window_);
        layout->addWidget(view_);
        window_->setWindowTitle(PermissionView::windowTitle(model_.lang() == u"pt"));
        window_->adjustSize();
        if (const QScreen* screen = QGuiApplication::primaryScreen())
            window_->move(screen->availableGeometry().center() - window_->rect().center());
    }
    window_->show();
    window_->raise();
    window_->activateWindow();
    startPolling();
}

void PermissionWindowController::stopPolling() {
    if (!pollTimer_) return;
    // Later: this may run inside the timer's own tick.
    pollTimer_->stop();
    pollTimer_->deleteLater();
    pollTimer_ = nullptr;
}

void PermissionWindowController::startPolling() {
    stopPolling();
    // A child: the timer goes with the controller, so a late tick never reaches a dead one.
    pollTimer_ = new QTimer(this);
    pollTimer_->setInterval(pollMs);
    connect(pollTimer_, &QTimer::timeout, this, [this] {
        const bool granted = accessibility_.trusted();
        model_.setAccessibilityOK(granted);
        if (granted) close();
    });
    pollTimer_->start();
}

void PermissionWindowController::close() {
    stopPolling();
    if (window_) window_->close();
}

}  // namespace corvi
