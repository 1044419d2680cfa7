#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <QTemporaryFile>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

class QDBusMessage;
class QDBusServiceWatcher;

namespace corvi {

// Our script inside KWin, and what it last said about the active window. The script is
// loaded over KWin's scripting interface and calls back on this connection's unique name;
// only calls from the connection that owns org.kde.KWin count. Every call to KWin is
// asynchronous, so nothing here waits on it. When KWin goes, the last report goes with it;
// when a KWin appears, the script is loaded into it again.
class KWinScript : public QObject {
    Q_OBJECT

  public:
    static constexpr int kCallTimeoutMs = 250;
    // A longer caption is cut to this many UTF-16 units, never inside a surrogate pair.
    static constexpr qsizetype kCaptionChars = 64 * 1024;
    static inline const QString kPluginName = QStringLiteral("tech.stonefold.corvimetry.activewindow");
    static inline const QString kObjectPath = QStringLiteral("/tech/stonefold/corvimetry/KWinActiveWindow");
    static inline const QString kInterface = QStringLiteral("tech.stonefold.corvimetry.KWinActiveWindow");

    struct Window {
        QString desktopFileName;
        QString resourceClass;
        QString caption;
        std::int32_t pid = 0;
    };

    // `unsupported` runs once if no script has reported `giveUpAfter` after this was made.
    explicit KWinScript(QDBusConnection bus, std::function<void()> unsupported = {},
                        std::chrono::milliseconds giveUpAfter = std::chrono::seconds(60));
    ~KWinScript() override;

    // The active window as last reported; none when no window is active or the script is not
    // heard from. Reports an unsupported desktop when that is due.
    std::optional<Window> active();
    // The script runs in the KWin that is on the bus now and has reported.
    bool reporting() const { return heard_; }

  private:
    class Receiver;

    void handle(const QDBusMessage& message);
    void ownerIs(const QString& owner);
    void load();
    void loadScript(int attempt);
    void run(int id, int pathIndex);
    void awaitFirstReport(int generation, bool startedAll);
    void failed();
    void poll();  // the one-time unsupported report, when due
    bool writeScript();
    // Sends `method` to KWin's scripting object; `done` gets the reply unless the KWin it was
    // meant for is gone.
    void call(const QString& path, const QString& interface, const QString& method, const QVariantList& args,
              std::function<void(const QDBusMessage&)> done);

    QDBusConnection bus_;
    std::unique_ptr<Receiver> receiver_;
    QDBusServiceWatcher* watcher_ = nullptr;
    QTemporaryFile file_;
    std::function<void()> unsupported_;
    std::chrono::steady_clock::time_point giveUpAt_;
    std::chrono::milliseconds backoff_{};
    QString owner_;       // KWin's unique name; empty while it is not on the bus
    int generation_ = 0;  // one per KWin and load attempt; late replies from older ones are dropped
    bool heard_ = false;
    bool everHeard_ = false;
    std::optional<Window> active_;
};

}  // namespace corvi
