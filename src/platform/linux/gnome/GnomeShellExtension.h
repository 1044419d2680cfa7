#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <chrono>
#include <cstdint>
#include <optional>

namespace corvi {

// Our GNOME Shell extension as seen from the session bus: it owns kBusName while enabled,
// answers Get with the focused window and says Changed whenever that changes. Asked once per
// owner; after that its signals keep the answer, so a steady tick costs the Shell nothing.
// When the name changes hands (extension disabled, Shell gone or restarted) the answer goes
// with the old owner, and nothing is asked while the name has none. A Shell that does not
// answer in time (hung, stopped) is left alone for a while, so it costs one timeout every
// other tick rather than one per question. Main thread: the bus's word comes through the
// event loop.
class GnomeShellExtension : public QObject {
    Q_OBJECT

  public:
    static constexpr const char* kUuid = "corviagent@corvimetry.stonefold.tech";
    static constexpr const char* kBusName = "tech.stonefold.corvimetry.GnomeShell";
    static constexpr const char* kObjectPath = "/tech/stonefold/corvimetry/FocusedWindow";
    static constexpr const char* kInterface = "tech.stonefold.corvimetry.FocusedWindow";
    static constexpr int kCallTimeoutMs = 250;
    static constexpr std::chrono::seconds kQuietAfterTimeout{4};

    struct Focus {
        bool focused = false;  // false: no window has the focus, and the rest is empty
        QString appId;         // the desktop entry's ID, else what the window calls itself
        QString title;
        std::int32_t pid = 0;
    };

    explicit GnomeShellExtension(QDBusConnection bus);
    ~GnomeShellExtension() override;

    // None when the extension does not answer (not enabled, no Shell, a malformed reply).
    std::optional<Focus> focus();
    // Another call to the Shell went unanswered: a hung Shell's last word no longer stands,
    // and it is left alone for a while.
    void notAnswering();

  private slots:
    void changed(bool focused, const QString& appId, const QString& title, uint pid);

  private:
    std::optional<Focus> ask();

    QDBusConnection bus_;
    bool mayHaveOwner_ = true;  // until the bus says the name has none
    std::optional<Focus> known_;
    std::chrono::steady_clock::time_point quietUntil_{};
};

}  // namespace corvi
