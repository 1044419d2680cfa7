#include "platform/linux/freedesktop/ScreenLockProbe.h"

#include <QDBusMessage>
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

ScreenLockProbe::ScreenLockProbe(QDBusConnection sessionBus, QDBusConnection systemBus,
                                 std::chrono::milliseconds reprobeInterval)
    : session_(std::move(sessionBus)), system_(std::move(systemBus)), reprobeInterval_(reprobeInterval) {}

bool ScreenLockProbe::locked() {
    if (found_ >= 0) {
        const Answer a = ask(found_);
        if (a != Answer::None) return a == Answer::Locked;
        // It stopped answering: this tick's answer comes from a new search at once.
        found_ = -1;
    } else if (searched_ && std::chrono::steady_clock::now() - lastSearch_ < reprobeInterval_) {
        return false;
    }
    searched_ = true;
    lastSearch_ = std::chrono::steady_clock::now();
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
    const QDBusMessage reply = bus.call(call, QDBus::Block, kCallTimeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) return Answer::None;
    QVariant value = reply.arguments().constFirst();
    if (value.canConvert<QDBusVariant>()) value = value.value<QDBusVariant>().variant();
    if (value.metaType().id() != QMetaType::Bool) return Answer::None;
    return value.toBool() ? Answer::Locked : Answer::Unlocked;
}

}  // namespace corvi
