#include "platform/linux/kde/KWinScript.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusServiceWatcher>
#include <QDBusVirtualObject>
#include <QDir>
#include <QFile>
#include <QTimer>
#include <algorithm>
#include <limits>

namespace corvi {
namespace {

const QString kKWin = QStringLiteral("org.kde.KWin");
const QString kScripting = QStringLiteral("/Scripting");
const QString kScriptingInterface = QStringLiteral("org.kde.kwin.Scripting");
const QString kPlaceholder = QStringLiteral("@AGENT_BUS_NAME@");
constexpr std::chrono::milliseconds kFirstBackoff = std::chrono::seconds(1);
constexpr std::chrono::milliseconds kLongestBackoff = std::chrono::seconds(30);
// How long a started script has to say something before KWin is asked to start it again.
constexpr std::chrono::milliseconds kFirstReportWait = std::chrono::seconds(2);

std::int32_t pidOf(const QVariant& v) {
    bool ok = false;
    const qlonglong pid = v.toLongLong(&ok);
    return ok && pid > 0 && pid <= std::numeric_limits<std::int32_t>::max() ? static_cast<std::int32_t>(pid)
                                                                            : 0;
}

QString capped(QString caption) {
    if (caption.size() <= KWinScript::kCaptionChars) return caption;
    caption.truncate(KWinScript::kCaptionChars);
    if (caption.back().isHighSurrogate()) caption.chop(1);
    return caption;
}

}  // namespace

class KWinScript::Receiver : public QDBusVirtualObject {
  public:
    explicit Receiver(KWinScript* script) : script_(script) {}
    QString introspect(const QString&) const override { return {}; }
    bool handleMessage(const QDBusMessage& message, const QDBusConnection&) override {
        script_->handle(message);
        return true;
    }

  private:
    KWinScript* script_;
};

KWinScript::KWinScript(QDBusConnection bus, std::function<void()> unsupported,
                       std::chrono::milliseconds giveUpAfter)
    : bus_(std::move(bus)),
      receiver_(std::make_unique<Receiver>(this)),
      unsupported_(std::move(unsupported)),
      giveUpAt_(std::chrono::steady_clock::now() + giveUpAfter),
      backoff_(kFirstBackoff) {
    if (!bus_.isConnected()) return;
    bus_.registerVirtualObject(kObjectPath, receiver_.get());
    watcher_ = new QDBusServiceWatcher(kKWin, bus_, QDBusServiceWatcher::WatchForOwnerChange, this);
    connect(watcher_, &QDBusServiceWatcher::serviceOwnerChanged, this,
            [this](const QString&, const QString&, const QString& owner) { ownerIs(owner); });
    auto ask = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("GetNameOwner"));
    ask.setArguments({kKWin});
    auto* pending = new QDBusPendingCallWatcher(bus_.asyncCall(ask, kCallTimeoutMs), this);
    connect(pending, &QDBusPendingCallWatcher::finished, this, [this, pending] {
        pending->deleteLater();
        const QDBusMessage reply = pending->reply();
        if (reply.type() == QDBusMessage::ReplyMessage && owner_.isEmpty())
            ownerIs(reply.arguments().value(0).toString());
    });
}

KWinScript::~KWinScript() {
    if (!bus_.isConnected()) return;
    if (!owner_.isEmpty()) {
        // Left running, the script would keep calling a name that is gone.
        auto unload = QDBusMessage::createMethodCall(owner_, kScripting, kScriptingInterface,
                                                     QStringLiteral("unloadScript"));
        unload.setArguments({kPluginName});
        bus_.send(unload);
    }
    bus_.unregisterObject(kObjectPath);
}

std::optional<KWinScript::Window> KWinScript::active() {
    poll();
    return active_;
}

void KWinScript::poll() {
    if (everHeard_ || !unsupported_ || std::chrono::steady_clock::now() < giveUpAt_) return;
    const auto report = std::move(unsupported_);
    unsupported_ = {};
    report();
}

void KWinScript::handle(const QDBusMessage& message) {
    if (message.type() != QDBusMessage::MethodCallMessage) return;
    // Only KWin itself speaks for the windows.
    if (owner_.isEmpty() || message.service() != owner_ || message.interface() != kInterface) {
        bus_.send(message.createErrorReply(QDBusError::AccessDenied, QStringLiteral("not KWin")));
        return;
    }
    const QVariantList args = message.arguments();
    if (message.member() == QLatin1String("Active") && args.size() == 4) {
        active_ = Window{args[0].toString(), args[1].toString(), capped(args[2].toString()), pidOf(args[3])};
    } else if (message.member() == QLatin1String("None")) {
        active_.reset();
    } else {
        bus_.send(message.createErrorReply(QDBusError::UnknownMethod, message.member()));
        return;
    }
    heard_ = everHeard_ = true;
    backoff_ = kFirstBackoff;
    bus_.send(message.createReply());
}

void KWinScript::ownerIs(const QString& owner) {
    if (owner == owner_) return;
    owner_ = owner;
    ++generation_;
    heard_ = false;
    active_.reset();
    backoff_ = kFirstBackoff;
    if (!owner_.isEmpty()) load();
}

bool KWinScript::writeScript() {
    if (file_.isOpen()) return true;
    QFile source(QStringLiteral(":/kwin/activewindow.js"));
    if (!source.open(QIODevice::ReadOnly)) return false;
    QString text = QString::fromUtf8(source.readAll());
    text.replace(kPlaceholder, bus_.baseService());
    // KWin runs as this user and reads the file itself; the runtime folder is private to us.
    QString folder = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (folder.isEmpty() || !QDir(folder).exists()) folder = QDir::tempPath();
    file_.setFileTemplate(folder + QStringLiteral("/corviagent-kwin-XXXXXX.js"));
    if (!file_.open()) return false;
    const QByteArray bytes = text.toUtf8();
    if (file_.write(bytes) != bytes.size() || !file_.flush()) {
        file_.remove();
        file_.close();
        return false;
    }
    return true;
}

void KWinScript::load() {
    ++generation_;
    if (!writeScript()) {
        failed();
        return;
    }
    // A copy left by an earlier run of the agent goes first; it shares our plugin name.
    call(kScripting, kScriptingInterface, QStringLiteral("unloadScript"), {kPluginName},
         [this](const QDBusMessage&) { loadScript(0); });
}

void KWinScript::loadScript(int attempt) {
    call(kScripting, kScriptingInterface, QStringLiteral("loadScript"), {file_.fileName(), kPluginName},
         [this, attempt](const QDBusMessage& reply) {
             if (reply.type() != QDBusMessage::ReplyMessage) {
                 failed();
                 return;
             }
             bool ok = false;
             const int id = reply.arguments().value(0).toInt(&ok);
             if (ok && id >= 0) {
                 run(id, 0);
             } else if (ok && attempt < 5) {
                 // The unloaded copy is deleted on KWin's next pass through its event loop;
                 // until then the name is taken.
                 const int generation = generation_;
                 QTimer::singleShot(100, this, [this, generation, attempt] {
                     if (generation != generation_) return;
                     call(kScripting, kScriptingInterface, QStringLiteral("unloadScript"), {kPluginName},
                          [this, attempt](const QDBusMessage&) { loadScript(attempt + 1); });
                 });
             } else {
                 failed();
             }
         });
}

void KWinScript::run(int id, int pathIndex) {
    // KWin 6 puts a loaded script at /Scripting/Script<id>, KWin 5 at /<id>.
    const QString path =
        pathIndex == 0 ? QStringLiteral("/Scripting/Script%1").arg(id) : QStringLiteral("/%1").arg(id);
    call(path, QStringLiteral("org.kde.kwin.Script"), QStringLiteral("run"), {},
         [this, id, pathIndex](const QDBusMessage& reply) {
             if (reply.type() != QDBusMessage::ReplyMessage && pathIndex == 0) {
                 run(id, 1);
                 return;
             }
             awaitFirstReport(generation_, false);
         });
}

void KWinScript::awaitFirstReport(int generation, bool startedAll) {
    QTimer::singleShot(kFirstReportWait, this, [this, generation, startedAll] {
        if (generation != generation_ || heard_) return;
        if (startedAll) {
            failed();
            return;
        }
        // KWin numbers scripts by their count, so after an unload our id can be another
        // script's and `run` reached that one. Starting all loaded scripts reaches ours.
        call(kScripting, kScriptingInterface, QStringLiteral("start"), {}, {});
        awaitFirstReport(generation, true);
    });
}

void KWinScript::failed() {
    const int generation = ++generation_;
    QTimer::singleShot(backoff_, this, [this, generation] {
        if (generation == generation_ && !owner_.isEmpty()) load();
    });
    backoff_ = std::min(backoff_ * 2, kLongestBackoff);
}

void KWinScript::call(const QString& path, const QString& interface, const QString& method,
                      const QVariantList& args, std::function<void(const QDBusMessage&)> done) {
    // To KWin's unique name: a KWin started meanwhile must not get an older one's calls.
    auto message = QDBusMessage::createMethodCall(owner_, path, interface, method);
    message.setArguments(args);
    const int generation = generation_;
    auto* pending = new QDBusPendingCallWatcher(bus_.asyncCall(message, kCallTimeoutMs), this);
    connect(pending, &QDBusPendingCallWatcher::finished, this, [this, pending, generation, done] {
        pending->deleteLater();
        if (generation == generation_ && done) done(pending->reply());
    });
}

}  // namespace corvi
