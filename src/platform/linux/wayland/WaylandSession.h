#pragma once

#include <QByteArray>
#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

struct wl_display;
struct wl_registry;
struct wl_seat;
class QSocketNotifier;

namespace corvi {

// The probes' own Wayland connection, apart from Qt's, so the agent's windows never depend on
// it. Events are read whenever the socket has some (a notifier on the main thread) and before
// each probe answers, never waiting for the compositor. A broken connection (the compositor
// went away) is dropped and a new one tried at most once per retry interval; until then the
// probes answer neutrally.
class WaylandSession {
  public:
    // A user of globals on this connection. Everything it made on the connection dies with it:
    // disconnected() must forget those objects (wl_proxy_destroy, no requests).
    class Client {
      public:
        virtual ~Client() = default;
        virtual void global(wl_registry* registry, std::uint32_t name, const char* interface,
                            std::uint32_t version) = 0;
        virtual void globalRemoved(std::uint32_t name) = 0;
        virtual void disconnected() = 0;
    };

    static constexpr std::chrono::milliseconds kConnectBudget{250};

    // An empty display name means $WAYLAND_DISPLAY, read again at every connection attempt.
    explicit WaylandSession(QByteArray displayName = {},
                            std::chrono::milliseconds retryInterval = std::chrono::seconds(3));
    ~WaylandSession();
    WaylandSession(const WaylandSession&) = delete;
    WaylandSession& operator=(const WaylandSession&) = delete;

    // The process-wide session the probes of one backend share.
    static std::shared_ptr<WaylandSession> shared();

    // Clients hear of every global, those already announced included, until removed.
    void addClient(Client* client);
    void removeClient(Client* client);

    // Reads and dispatches what has arrived, connecting when due; false without a live
    // connection. Never waits for the compositor.
    bool refresh();
    // Whether a connection is up, without touching it.
    bool connected() const { return display_ != nullptr; }
    // Lets the compositor answer what was just asked (a bind, a new object), waiting at most
    // `budget`. False when it did not answer in time or the connection broke.
    bool settle(std::chrono::milliseconds budget = std::chrono::milliseconds(250));

    // The first seat the compositor offers; nullptr before it is known.
    wl_seat* seat() const { return seat_; }

    // Connections made so far, for tests.
    int connections() const { return connections_; }

    // The registry's events, from its listener.
    void handleGlobal(std::uint32_t name, const char* interface, std::uint32_t version);
    void handleGlobalRemove(std::uint32_t name);

  private:
    struct Global {
        std::uint32_t name;
        QByteArray interface;
        std::uint32_t version;
    };

    bool connect();
    void disconnect();
    void dropBroken();
    bool readAndDispatch(int timeoutMs);
    bool readAndDispatchOnce(int timeoutMs);
    bool broken() const;

    QByteArray displayName_;
    std::chrono::milliseconds retryInterval_;
    std::chrono::steady_clock::time_point lastAttempt_{};
    bool attempted_ = false;
    int connections_ = 0;

    wl_display* display_ = nullptr;
    bool lost_ = false;  // a read, write or dispatch failed
    wl_registry* registry_ = nullptr;
    wl_seat* seat_ = nullptr;
    std::unique_ptr<QSocketNotifier> notifier_;
    std::vector<Global> globals_;
    std::vector<Client*> clients_;
};

}  // namespace corvi
