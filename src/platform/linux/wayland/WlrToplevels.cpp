#include "platform/linux/wayland/WlrToplevels.h"

#include <wayland-client.h>

#include <algorithm>
#include <cstring>

#include "wlr-foreign-toplevel-management-unstable-v1-client.h"

namespace corvi {

// One toplevel; its events change `pending`, which counts from the next `done`.
struct WlrToplevels::Handle {
    WlrToplevels* owner = nullptr;
    zwlr_foreign_toplevel_handle_v1* proxy = nullptr;
    Window pending, current;
    bool pendingActive = false, active = false;
    std::uint64_t activatedAt = 0;  // activation order, for several activated at once
};

namespace {

std::uint64_t activationCounter = 0;
std::uint64_t handleCounter = 0;

WlrToplevels::Handle* handleOf(void* data) {
    return static_cast<WlrToplevels::Handle*>(data);
}

const zwlr_foreign_toplevel_handle_v1_listener kHandleListener = {
    /*title*/ [](void* data, zwlr_foreign_toplevel_handle_v1*, const char* title) {
        handleOf(data)->pending.title = QString::fromUtf8(title);
    },
    /*app_id*/
    [](void* data, zwlr_foreign_toplevel_handle_v1*, const char* appId) {
        handleOf(data)->pending.appId = QString::fromUtf8(appId);
    },
    /*output_enter*/ [](void*, zwlr_foreign_toplevel_handle_v1*, wl_output*) {},
    /*output_leave*/ [](void*, zwlr_foreign_toplevel_handle_v1*, wl_output*) {},
    /*state*/
    [](void* data, zwlr_foreign_toplevel_handle_v1*, wl_array* states) {
        bool active = false;
        const auto* begin = static_cast<const std::uint32_t*>(states->data);
        const auto* end = begin + states->size / sizeof(std::uint32_t);
        for (const auto* s = begin; s != end; ++s)
            active = active || *s == ZWLR_FOREIGN_TOPLEVEL_HANDLE_V1_STATE_ACTIVATED;
        handleOf(data)->pendingActive = active;
    },
    /*done*/
    [](void* data, zwlr_foreign_toplevel_handle_v1*) {
        WlrToplevels::Handle* h = handleOf(data);
        if (h->pendingActive && !h->active) h->activatedAt = ++activationCounter;
        h->current = h->pending;
        h->active = h->pendingActive;
    },
    /*closed*/
    [](void* data, zwlr_foreign_toplevel_handle_v1*) { handleOf(data)->owner->closed(handleOf(data)); },
    /*parent*/ [](void*, zwlr_foreign_toplevel_handle_v1*, zwlr_foreign_toplevel_handle_v1*) {},
};

const zwlr_foreign_toplevel_manager_v1_listener kManagerListener = {
    /*toplevel*/
    [](void* data, zwlr_foreign_toplevel_manager_v1*, zwlr_foreign_toplevel_handle_v1* handle) {
        static_cast<WlrToplevels*>(data)->added(handle);
    },
    /*finished*/
    [](void* data, zwlr_foreign_toplevel_manager_v1*) { static_cast<WlrToplevels*>(data)->finished(); },
};

}  // namespace

WlrToplevels::WlrToplevels(std::shared_ptr<WaylandSession> session) : session_(std::move(session)) {
    session_->addClient(this);
}

WlrToplevels::~WlrToplevels() {
    session_->removeClient(this);
    forget(session_->connected());
}

std::optional<WlrToplevels::Window> WlrToplevels::activated() const {
    const Handle* best = nullptr;
    for (const auto& h : handles_)
        if (h->active && (!best || h->activatedAt > best->activatedAt)) best = h.get();
    if (!best) return std::nullopt;
    return best->current;
}

void WlrToplevels::added(zwlr_foreign_toplevel_handle_v1* proxy) {
    auto h = std::make_unique<Handle>();
    h->owner = this;
    h->proxy = proxy;
    h->pending.id = ++handleCounter;
    zwlr_foreign_toplevel_handle_v1_add_listener(proxy, &kHandleListener, h.get());
    handles_.push_back(std::move(h));
}

void WlrToplevels::closed(Handle* handle) {
    zwlr_foreign_toplevel_handle_v1_destroy(handle->proxy);
    handles_.erase(
        std::find_if(handles_.begin(), handles_.end(), [&](const auto& h) { return h.get() == handle; }));
}

void WlrToplevels::finished() {
    // The compositor destroyed the manager; the handles stay valid until each is closed.
    wl_proxy_destroy(reinterpret_cast<wl_proxy*>(manager_));
    manager_ = nullptr;
}

void WlrToplevels::global(wl_registry* registry, std::uint32_t name, const char* interface,
                          std::uint32_t version) {
    if (manager_ || std::strcmp(interface, zwlr_foreign_toplevel_manager_v1_interface.name) != 0) return;
    manager_ = static_cast<zwlr_foreign_toplevel_manager_v1*>(
        wl_registry_bind(registry, name, &zwlr_foreign_toplevel_manager_v1_interface, std::min(version, 3u)));
    zwlr_foreign_toplevel_manager_v1_add_listener(manager_, &kManagerListener, this);
}

void WlrToplevels::globalRemoved(std::uint32_t) {}

void WlrToplevels::disconnected() {
    forget(false);
}

void WlrToplevels::forget(bool live) {
    for (const auto& h : handles_) {
        if (live)
            zwlr_foreign_toplevel_handle_v1_destroy(h->proxy);
        else
            wl_proxy_destroy(reinterpret_cast<wl_proxy*>(h->proxy));
    }
    handles_.clear();
    if (manager_) {
        if (live) zwlr_foreign_toplevel_manager_v1_stop(manager_);
        wl_proxy_destroy(reinterpret_cast<wl_proxy*>(manager_));
    }
    manager_ = nullptr;
}

}  // namespace corvi
