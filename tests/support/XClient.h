#pragma once

#include <QByteArray>
#include <QString>
#include <cstdint>
#include <vector>

namespace corvi::test {

// A real X client for tests: it makes top-level windows, writes their properties exactly as
// given (hostile ones included), activates them the way a pager does and fakes user input.
// Windows are plain ids so that tests need no X headers.
class XClient {
  public:
    using Window = std::uint32_t;

    explicit XClient(const QString& display);
    ~XClient();
    XClient(const XClient&) = delete;
    XClient& operator=(const XClient&) = delete;

    bool ok() const;
    Window root() const;

    // A mapped top-level window, without properties.
    Window createWindow();
    void destroyWindow(Window w);

    // Writes a property of any type and format (8, 16 or 32; `data` holds the raw items).
    void setProperty(Window w, const char* name, const char* type, int format, const QByteArray& data);
    void setText(Window w, const char* name, const char* type, const QByteArray& text) {
        setProperty(w, name, type, 8, text);
    }
    void setCardinal(Window w, const char* name, std::uint32_t value);
    void setClass(Window w, const QByteArray& instance, const QByteArray& windowClass);
    void deleteProperty(Window w, const char* name);
    // The items of a format-32 property (windows, cardinals); empty when it is unset.
    std::vector<std::uint32_t> items32(Window w, const char* name);

    // Asks the window manager to activate `w` (the EWMH client message) and waits until the
    // root window names it active. False on timeout.
    bool activate(Window w, int timeoutMs = 5000);
    // Sets the root's _NET_ACTIVE_WINDOW directly (for a display without a window manager).
    void setActiveWindow(Window w);

    // A pointer motion through XTEST; the server counts it as user input.
    bool fakeInput();

    // Waits until the server has handled everything sent so far.
    void sync();

    // Whether the root names a live EWMH window manager, and whether it frames a window
    // mapped now within `timeoutMs` (openbox announces itself before it manages windows).
    bool hasWindowManager();
    bool framesNewWindows(int timeoutMs);

  private:
    std::uint32_t atom(const char* name);

    struct Connection;
    Connection* c_;
};

}  // namespace corvi::test
