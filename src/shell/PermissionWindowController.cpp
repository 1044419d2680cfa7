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

QTimer* PermissionWindowController::pollTimer() const {
    return pollTimer_ && pollTimer_->isActive() ? pollTimer_ : nullptr;
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

void PermissionWindowController::startPolling() {
    // One timer, restarted: a second show() never leaves two polling.
    if (!pollTimer_) {
        // A child: it goes with the controller, so a late tick never reaches a dead one.
        pollTimer_ = new QTimer(this);
        pollTimer_->setInterval(pollMs);
        connect(pollTimer_, &QTimer::timeout, this, [this] {
            const bool granted = accessibility_.trusted();
            model_.setAccessibilityOK(granted);
            if (granted) close();
        });
    }
    pollTimer_->start();
}

void PermissionWindowController::close() {
    if (pollTimer_) pollTimer_->stop();
    if (window_) window_->close();
}

}  // namespace corvi
