#include "platform/linux/freedesktop/ScreenLockProbe.h"

#include <QDBusMessage>
#include <QDBusServiceWatcher>
#include <QDBusVariant>

namespace corvi {
namespace {

struct Service {
    const char* name;
    const char* path;
    const char* interface;
    bool systemBus;
};

// The order in which lockers are asked.
constexpr Service kServices[] = {
    {"org.freedesktop.ScreenSaver", "/org/freedesktop/ScreenSaver", "org.freedesktop.ScreenSaver", false},
    {"org.gnome.ScreenSaver", "/org/gnome/ScreenSaver", "org.gnome.ScreenSaver", false},
    {"org.mate.ScreenSaver", "/org/mate/ScreenSaver", "org.mate.ScreenSaver", false},
    {"org.cinnamon.ScreenSaver", "/org/cinnamon/ScreenSaver", "org.cinnamon.ScreenSaver", false},
    {"org.freedesktop.login1", "/org/freedesktop/login1/session/auto", "org.freedesktop.login1.Session",
     true},
};
constexpr int kServiceCount = sizeof(kServices) / sizeof(kServices[0]);

}  // namespace

ScreenLockProbe::ScreenLockProbe(QDBusConnection sessionBus, QDBusConnection systemBus)
    : session_(std::move(sessionBus)),
      system_(std::move(systemBus)),
      sessionWatch_(watch(session_, false)),
      systemWatch_(watch(system_, true)) {}

ScreenLockProbe::~ScreenLockProbe() = default;

std::unique_ptr<QDBusServiceWatcher> ScreenLockProbe::watch(QDBusConnection& bus, bool systemBus) {
    if (!bus.isConnected()) return nullptr;
    QStringList names;
    for (const Service& s : kServices)
        if (s.systemBus == systemBus) names << QString::fromLatin1(s.name);
    auto watcher = std::make_unique<QDBusServiceWatcher>();
    watcher->setConnection(bus);
    watcher->setWatchMode(QDBusServiceWatcher::WatchForRegistration);
    watcher->setWatchedServices(names);
    // The watcher is ours and goes first: the probe outlives every call of this.
    QObject::connect(watcher.get(), &QDBusServiceWatcher::serviceRegistered, [this] {
        if (found_ < 0) searchDue_ = true;
    });
    return watcher;
}

bool ScreenLockProbe::locked() {
    if (found_ >= 0) {
        const Answer a = ask(found_);
        if (a != Answer::None) return a == Answer::Locked;
        // It stopped answering: this tick's answer comes from a new search at once.
        found_ = -1;
        searchDue_ = true;
    }
    if (!searchDue_) return false;
    searchDue_ = false;
    // Each locker has its own timeout, so one that hangs costs its timeout and no more.
    for (int i = 0; i < kServiceCount; ++i) {
        const Answer a = ask(i);
        if (a == Answer::None) continue;
        found_ = i;
        return a == Answer::Locked;
    }
    return false;
}

ScreenLockProbe::Answer ScreenLockProbe::ask(int index) {
    const Service& s = kServices[index];
    QDBusConnection& bus = s.systemBus ? system_ : session_;
    if (!bus.isConnected()) return Answer::None;
    QDBusMessage call;
    if (s.systemBus) {
        call = QDBusMessage::createMethodCall(QString::fromLatin1(s.name), QString::fromLatin1(s.path),
                                              QStringLiteral("org.freedesktop.DBus.Properties"),
                                              QStringLiteral("Get"));
        call << QString::fromLatin1(s.interface) << QStringLiteral("LockedHint");
    } else {
        call = QDBusMessage::createMethodCall(QString::fromLatin1(s.name), QString::fromLatin1(s.path),
                                              QString::fromLatin1(s.interface), QStringLiteral("GetActive"));
    }
    // A locker that is installed but not running stays so (GNOME's is activatable wherever
    // GNOME is installed, whatever the desktop): the bus answers at once that nobody owns it.
    call.setAutoStartService(false);
    const QDBusMessage reply = bus.call(call, QDBus::Block, kCallTimeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) return Answer::None;
    QVariant value = reply.arguments().constFirst();
    if (value.canConvert<QDBusVariant>()) value = value.value<QDBusVariant>().variant();
    if (value.metaType().id() != QMetaType::Bool) return Answer::None;
    return value.toBool() ? Answer::Locked : Answer::Unlocked;
}

}  // namespace corvi
