#pragma once

#include <QString>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "platform/linux/wayland/WaylandSession.h"

struct zwlr_foreign_toplevel_manager_v1;
struct zwlr_foreign_toplevel_handle_v1;

namespace corvi {

// Every toplevel window the compositor lists through zwlr_foreign_toplevel_manager_v1, with
// its app ID, title and whether it holds the focus. Kept up to date from the compositor's
// events, so a question costs no round trip.
class WlrToplevels : private WaylandSession::Client {
  public:
    struct Window {
        std::uint64_t id = 0;  // the same for one toplevel as long as it lives
        QString appId;
        QString title;
    };

    explicit WlrToplevels(std::shared_ptr<WaylandSession> session);
    ~WlrToplevels() override;
    WlrToplevels(const WlrToplevels&) = delete;
    WlrToplevels& operator=(const WlrToplevels&) = delete;

    // Reads what the compositor sent meanwhile; false without a live connection.
    bool refresh() { return session_->refresh(); }
    // The compositor offers the manager on the live connection.
    bool offered() const { return manager_ != nullptr; }
    // The activated window; with several (one per seat), the one activated last.
    std::optional<Window> activated() const;

    // The manager's and the handles' events, from their listeners.
    struct Handle;
    void added(zwlr_foreign_toplevel_handle_v1* handle);
    void closed(Handle* handle);
    void finished();

  private:
    void global(wl_registry* registry, std::uint32_t name, const char* interface,
                std::uint32_t version) override;
    void globalRemoved(std::uint32_t name) override;
    void disconnected() override;
    void forget(bool live);

    std::shared_ptr<WaylandSession> session_;
    zwlr_foreign_toplevel_manager_v1* manager_ = nullptr;
    std::vector<std::unique_ptr<Handle>> handles_;
};

}  // namespace corvi
