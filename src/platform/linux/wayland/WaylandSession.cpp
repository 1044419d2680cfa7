#include "platform/linux/wayland/WaylandSession.h"

#include <poll.h>
#include <wayland-client.h>

#include <QSocketNotifier>
#include <algorithm>
#include <cerrno>
#include <cstring>

namespace corvi {
namespace {

const wl_registry_listener kRegistryListener = {
    [](void* data, wl_registry*, std::uint32_t name, const char* interface, std::uint32_t version) {
        static_cast<WaylandSession*>(data)->handleGlobal(name, interface, version);
    },
    [](void* data, wl_registry*, std::uint32_t name) {
        static_cast<WaylandSession*>(data)->handleGlobalRemove(name);
    },
};

const wl_callback_listener kSyncListener = {
    [](void* data, wl_callback*, std::uint32_t) { *static_cast<bool*>(data) = true; },
};

}  // namespace

WaylandSession::WaylandSession(QByteArray displayName, std::chrono::milliseconds retryInterval)
    : displayName_(std::move(displayName)), retryInterval_(retryInterval) {}

WaylandSession::~WaylandSession() {
    disconnect();
}

std::shared_ptr<WaylandSession> WaylandSession::shared() {
    static const auto session = std::make_shared<WaylandSession>();
    return session;
}

void WaylandSession::addClient(Client* client) {
    clients_.push_back(client);
    if (!registry_) return;
    const std::vector<Global> known = globals_;
    for (const Global& g : known) client->global(registry_, g.name, g.interface.constData(), g.version);
}

void WaylandSession::removeClient(Client* client) {
    clients_.erase(std::remove(clients_.begin(), clients_.end(), client), clients_.end());
}

bool WaylandSession::refresh() {
    if (display_) {
        if (readAndDispatch(0) && !broken()) return true;
        dropBroken();
        return false;
    }
    const auto now = std::chrono::steady_clock::now();
    if (attempted_ && now - lastAttempt_ < retryInterval_) return false;
    attempted_ = true;
    lastAttempt_ = now;
    return connect();
}

bool WaylandSession::connect() {
    const QByteArray name = displayName_.isEmpty() ? qgetenv("WAYLAND_DISPLAY") : displayName_;
    // A socket name is looked up in XDG_RUNTIME_DIR; without it libwayland only complains.
    if (name.isEmpty() || (!name.startsWith('/') && qEnvironmentVariableIsEmpty("XDG_RUNTIME_DIR")))
        return false;
    display_ = wl_display_connect(name.constData());
    if (!display_) return false;
    lost_ = false;
    ++connections_;
    registry_ = wl_display_get_registry(display_);
    wl_registry_add_listener(registry_, &kRegistryListener, this);
    notifier_ = std::make_unique<QSocketNotifier>(wl_display_get_fd(display_), QSocketNotifier::Read);
    QObject::connect(notifier_.get(), &QSocketNotifier::activated, notifier_.get(), [this] {
        // A hung-up socket stays readable: stop listening, the next refresh() drops it (the
        // notifier cannot be deleted from its own signal).
        if (!readAndDispatch(0) || broken()) notifier_->setEnabled(false);
    });
    // The globals, then what the clients bound answers with (the toplevels, for one), in one
    // budget: a slow compositor costs a tick at most that, and what it sends later arrives
    // through the notifier.
    const auto deadline = std::chrono::steady_clock::now() + kConnectBudget;
    if (settle(kConnectBudget))
        settle(std::chrono::duration_cast<std::chrono::milliseconds>(deadline -
                                                                     std::chrono::steady_clock::now()));
    if (!broken()) return true;
    disconnect();
    return false;
}

void WaylandSession::dropBroken() {
    disconnect();
    // The compositor went away under us: start the retry clock now.
    attempted_ = true;
    lastAttempt_ = std::chrono::steady_clock::now();
}

void WaylandSession::disconnect() {
    if (!display_) return;
    notifier_.reset();
    const std::vector<Client*> clients = clients_;
    for (Client* c : clients) c->disconnected();
    if (seat_) wl_proxy_destroy(reinterpret_cast<wl_proxy*>(seat_));
    if (registry_) wl_proxy_destroy(reinterpret_cast<wl_proxy*>(registry_));
    seat_ = nullptr;
    registry_ = nullptr;
    globals_.clear();
    wl_display_disconnect(display_);
    display_ = nullptr;
}

bool WaylandSession::broken() const {
    return !display_ || lost_ || wl_display_get_error(display_) != 0;
}

bool WaylandSession::readAndDispatch(int timeoutMs) {
    if (!display_) return false;
    lost_ = lost_ || !readAndDispatchOnce(timeoutMs);
    return !lost_;
}

bool WaylandSession::readAndDispatchOnce(int timeoutMs) {
    while (wl_display_prepare_read(display_) != 0) {
        if (wl_display_dispatch_pending(display_) < 0) return false;
    }
    // A full socket keeps the rest for the next call.
    if (wl_display_flush(display_) < 0 && errno != EAGAIN) {
        wl_display_cancel_read(display_);
        return false;
    }
    pollfd p{wl_display_get_fd(display_), POLLIN, 0};
    if (poll(&p, 1, timeoutMs) > 0) {
        if (wl_display_read_events(display_) < 0) return false;
    } else {
        wl_display_cancel_read(display_);
    }
    return wl_display_dispatch_pending(display_) >= 0;
}

bool WaylandSession::settle(std::chrono::milliseconds budget) {
    if (!display_) return false;
    bool done = false;
    wl_callback* callback = wl_display_sync(display_);
    wl_callback_add_listener(callback, &kSyncListener, &done);
    const auto deadline = std::chrono::steady_clock::now() + budget;
    while (!done && !broken()) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || !readAndDispatch(static_cast<int>(left.count()))) break;
    }
    wl_callback_destroy(callback);
    return done && !broken();
}

void WaylandSession::handleGlobal(std::uint32_t name, const char* interface, std::uint32_t version) {
    globals_.push_back({name, QByteArray(interface), version});
    if (!seat_ && std::strcmp(interface, wl_seat_interface.name) == 0) {
        // Only the seat's identity is needed (idle timers hang off it): version 1, no listener.
        seat_ = static_cast<wl_seat*>(wl_registry_bind(registry_, name, &wl_seat_interface, 1));
    }
    const std::vector<Client*> clients = clients_;
    for (Client* c : clients) c->global(registry_, name, interface, version);
}

void WaylandSession::handleGlobalRemove(std::uint32_t name) {
    globals_.erase(
        std::remove_if(globals_.begin(), globals_.end(), [&](const Global& g) { return g.name == name; }),
        globals_.end());
    const std::vector<Client*> clients = clients_;
    for (Client* c : clients) c->globalRemoved(name);
}

}  // namespace corvi
