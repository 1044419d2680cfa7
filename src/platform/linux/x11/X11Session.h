#pragma once

#include <xcb/xcb.h>

#include <QByteArray>
#include <QString>
#include <chrono>
#include <cstdint>
#include <memory>

class QSocketNotifier;

namespace corvi {

class CompoundTextDecoder;

// The probes' one X connection. A broken connection (the display went away) is dropped and
// a new one tried at most once per retry interval, so a missing display costs a tick
// nothing but the neutral answers. Everything here speaks xcb, which reports I/O errors
// instead of exiting.
class X11Session {
  public:
    struct Atoms {
        xcb_atom_t netActiveWindow = XCB_ATOM_NONE;
        xcb_atom_t netSupported = XCB_ATOM_NONE;
        xcb_atom_t netSupportingWmCheck = XCB_ATOM_NONE;
        xcb_atom_t netWmName = XCB_ATOM_NONE;
        xcb_atom_t netWmPid = XCB_ATOM_NONE;
        xcb_atom_t utf8String = XCB_ATOM_NONE;
        xcb_atom_t compoundText = XCB_ATOM_NONE;
        xcb_atom_t gtkApplicationId = XCB_ATOM_NONE;
        xcb_atom_t kdeDesktopFile = XCB_ATOM_NONE;
    };

    // An empty display name means $DISPLAY, read again at every connection attempt.
    explicit X11Session(QByteArray displayName = {},
                        std::chrono::milliseconds retryInterval = std::chrono::seconds(3));
    ~X11Session();
    X11Session(const X11Session&) = delete;
    X11Session& operator=(const X11Session&) = delete;

    // The process-wide session shared by the window, idle and permission probes.
    static std::shared_ptr<X11Session> shared();

    // The live connection, reconnecting when due; nullptr when there is no display.
    xcb_connection_t* connection();
    xcb_window_t root() const { return root_; }
    const Atoms& atoms() const { return atoms_; }
    bool hasResourceExtension() const { return hasRes_; }
    bool hasScreenSaverExtension() const { return hasScreenSaver_; }

    // Round-trip accounting: requests pass through sent(), and willWait() runs before each
    // reply is awaited. Waiting for a request sent after the last counted wait began is one
    // round trip; the replies to everything sent before that wait arrive with it.
    template <typename Cookie>
    Cookie sent(Cookie cookie) {
        ++requests_;
        if (static_cast<int>(cookie.sequence - lastSent_) > 0) lastSent_ = cookie.sequence;
        return cookie;
    }
    void willWait(unsigned int sequence);
    // Round trips and requests since the session was made, for the benchmark and tests.
    std::uint64_t roundTrips() const { return roundTrips_; }
    std::uint64_t requests() const { return requests_; }

    // What only changes when X says so is kept by the probes and read again when these move:
    // the window manager's EWMH support (root properties, its check window going), and the
    // watched window's class, pid and application IDs. Both move at every new connection.
    // Reading them takes in the events queued since the last look, without a request.
    std::uint64_t wmGeneration();
    std::uint64_t windowGeneration();
    // Follows this window's property changes instead of the one before.
    void watchWindow(xcb_window_t window);
    // Notices the window manager's check window going.
    void watchCheckWindow(xcb_window_t window);

    // COMPOUND_TEXT to UTF-8 through Xlib, on a private display opened at the first need.
    // Empty when it cannot be decoded.
    QString decodeCompoundText(const QByteArray& bytes);

  private:
    bool connect();
    void disconnect();

    QByteArray displayName_;
    QByteArray connectedName_;
    std::chrono::milliseconds retryInterval_;
    std::chrono::steady_clock::time_point lastAttempt_{};
    bool attempted_ = false;

    xcb_connection_t* conn_ = nullptr;
    xcb_window_t root_ = XCB_WINDOW_NONE;
    Atoms atoms_;
    bool hasRes_ = false;
    bool hasScreenSaver_ = false;
    void takeEvents();

    unsigned int lastSent_ = 0;
    std::uint64_t requests_ = 0;
    std::uint64_t wmGeneration_ = 0;
    std::uint64_t windowGeneration_ = 0;
    xcb_window_t watched_ = XCB_WINDOW_NONE;
    xcb_window_t checkWindow_ = XCB_WINDOW_NONE;
    unsigned int horizon_ = 0;
    std::uint64_t roundTrips_ = 0;
    std::unique_ptr<CompoundTextDecoder> compound_;
    // Events are taken as they come too, so a paused agent (no ticks) leaves none piling up.
    std::unique_ptr<QSocketNotifier> notifier_;
};

}  // namespace corvi
