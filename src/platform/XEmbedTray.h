#pragma once

#include <QAbstractNativeEventFilter>
#include <cstdint>
#include <functional>

namespace corvi {

// Whether the display in DISPLAY has an X11 (XEmbed) system tray: a manager owns the default
// screen's _NET_SYSTEM_TRAY_S<n> selection.
bool xembedTrayPresent();

// Calls `arrived` when a tray manager takes that selection. It reads the MANAGER message the
// manager sends to the root window on the application's own X connection, where Qt's xcb
// platform listens for it; on any other platform it never fires.
class XEmbedTrayArrival final : public QAbstractNativeEventFilter {
  public:
    explicit XEmbedTrayArrival(std::function<void()> arrived);
    ~XEmbedTrayArrival() override;
    XEmbedTrayArrival(const XEmbedTrayArrival&) = delete;
    XEmbedTrayArrival& operator=(const XEmbedTrayArrival&) = delete;

    bool nativeEventFilter(const QByteArray& eventType, void* message, qintptr* result) override;

  private:
    std::function<void()> arrived_;
    std::uint32_t manager_ = 0;
    std::uint32_t selection_ = 0;
};

}  // namespace corvi
