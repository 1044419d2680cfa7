#include "platform/linux/wayland/WaylandIdle.h"

#include <wayland-client.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "ext-idle-notify-v1-client.h"
#include "idle-client.h"

namespace corvi {
namespace {

const ext_idle_notification_v1_listener kExtListener = {
    [](void* data, ext_idle_notification_v1*) { static_cast<WaylandIdle*>(data)->idled(); },
    [](void* data, ext_idle_notification_v1*) { static_cast<WaylandIdle*>(data)->resumed(); },
};

const org_kde_kwin_idle_timeout_listener kKdeListener = {
    [](void* data, org_kde_kwin_idle_timeout*) { static_cast<WaylandIdle*>(data)->idled(); },
    [](void* data, org_kde_kwin_idle_timeout*) { static_cast<WaylandIdle*>(data)->resumed(); },
};

template <typename T>
void forget(T*& proxy) {
    if (proxy) wl_proxy_destroy(reinterpret_cast<wl_proxy*>(proxy));
    proxy = nullptr;
}

}  // namespace

WaylandIdle::WaylandIdle(std::shared_ptr<WaylandSession> session, std::unique_ptr<ScreenLockProbe> lock)
    : session_(std::move(session)), lock_(std::move(lock)) {
    session_->addClient(this);
}

WaylandIdle::~WaylandIdle() {
    session_->removeClient(this);
    if (session_->connected()) {
        disarm();
        if (extNotifier_) ext_idle_notifier_v1_destroy(extNotifier_);
        if (kdeIdle_) wl_proxy_destroy(reinterpret_cast<wl_proxy*>(kdeIdle_));
    }
}

double WaylandIdle::idleSeconds() {
    session_->refresh();
    if (!idleSince_ || !watching()) return 0;
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - *idleSince_ + kTimeout).count();
    return std::isfinite(seconds) ? std::max(seconds, 0.0) : 0.0;
}

bool WaylandIdle::screenLocked() {
    return lock_ && lock_->locked();
}

void WaylandIdle::idled() {
    idleSince_ = std::chrono::steady_clock::now();
}

void WaylandIdle::resumed() {
    idleSince_.reset();
}

void WaylandIdle::global(wl_registry* registry, std::uint32_t name, const char* interface, std::uint32_t) {
    if (!extNotifier_ && std::strcmp(interface, ext_idle_notifier_v1_interface.name) == 0) {
        extNotifier_ = static_cast<ext_idle_notifier_v1*>(
            wl_registry_bind(registry, name, &ext_idle_notifier_v1_interface, 1));
        disarm();  // the standard timer replaces KDE's
    } else if (!kdeIdle_ && std::strcmp(interface, org_kde_kwin_idle_interface.name) == 0) {
        kdeIdle_ = static_cast<org_kde_kwin_idle*>(
            wl_registry_bind(registry, name, &org_kde_kwin_idle_interface, 1));
    }
    arm();
}

void WaylandIdle::globalRemoved(std::uint32_t) {}

void WaylandIdle::disconnected() {
    // The proxies went with the connection; forget them without requests.
    forget(extNotification_);
    forget(kdeTimeout_);
    forget(extNotifier_);
    forget(kdeIdle_);
    idleSince_.reset();
}

void WaylandIdle::arm() {
    wl_seat* seat = session_->seat();
    if (watching() || !seat) return;
    const auto ms = static_cast<std::uint32_t>(kTimeout.count());
    if (extNotifier_) {
        extNotification_ = ext_idle_notifier_v1_get_idle_notification(extNotifier_, ms, seat);
        ext_idle_notification_v1_add_listener(extNotification_, &kExtListener, this);
    } else if (kdeIdle_) {
        kdeTimeout_ = org_kde_kwin_idle_get_idle_timeout(kdeIdle_, seat, ms);
        org_kde_kwin_idle_timeout_add_listener(kdeTimeout_, &kKdeListener, this);
    }
}

void WaylandIdle::disarm() {
    if (extNotification_) ext_idle_notification_v1_destroy(extNotification_);
    if (kdeTimeout_) org_kde_kwin_idle_timeout_release(kdeTimeout_);
    extNotification_ = nullptr;
    kdeTimeout_ = nullptr;
    idleSince_.reset();
}

}  // namespace corvi
