#include "ui/Appearance.h"

#include <QApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusServiceWatcher>
#include <QDBusVariant>
#include <QEvent>
#include <QPalette>
#include <QPointer>
#include <QWidget>

namespace corvi {
namespace {

const QString kService = QStringLiteral("org.freedesktop.portal.Desktop");
const QString kPath = QStringLiteral("/org/freedesktop/portal/desktop");
const QString kInterface = QStringLiteral("org.freedesktop.portal.Settings");
const QString kNamespace = QStringLiteral("org.freedesktop.appearance");
const QString kKey = QStringLiteral("color-scheme");
constexpr int kReadTimeoutMs = 250;  // a paint may wait on the first read

QVariant unwrap(QVariant v) {
    // Read answers a variant inside a variant; SettingChanged a single one.
    while (v.metaType() == QMetaType::fromType<QDBusVariant>()) v = v.value<QDBusVariant>().variant();
    return v;
}

double luminance(const QColor& c) {
    return 0.2126 * c.redF() + 0.7152 * c.greenF() + 0.0722 * c.blueF();
}

}  // namespace

Appearance* Appearance::instance() {
    static QPointer<Appearance> one;
    if (!one) {
        QCoreApplication* app = QCoreApplication::instance();
        if (!app) return nullptr;
        one = new Appearance(app);
    }
    return one;
}

Appearance::Appearance(QObject* parent) : QObject(parent) {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (bus.isConnected()) {
        // Taken as the whole message: QtDBus refuses to connect a slot typed
        // (QString, QString, QDBusVariant) to this signal. Matched by path and interface, not
        // by the portal's name: QtDBus drops signals from a name's owner it has not yet seen
        // appear, which loses the first changes of a portal started after us.
        bus.connect(QString(), kPath, kInterface, QStringLiteral("SettingChanged"), this,
                    SLOT(onSettingChanged(QDBusMessage)));
        // The portal is often started on demand, after us: read it again when it appears.
        auto* watcher = new QDBusServiceWatcher(
            kService, bus,
            QDBusServiceWatcher::WatchForRegistration | QDBusServiceWatcher::WatchForUnregistration, this);
        connect(watcher, &QDBusServiceWatcher::serviceRegistered, this, &Appearance::onPortalRegistered);
        connect(watcher, &QDBusServiceWatcher::serviceUnregistered, this, &Appearance::onPortalUnregistered);
    }
    // On the application object this filter sees every event; it acts on palette changes.
    parent->installEventFilter(this);
    readPortal();
    dark_ = computeDark();
}

bool Appearance::darkFromPortalValue(const QVariant& value) {
    const QVariant v = unwrap(value);
    switch (v.typeId()) {
        case QMetaType::UInt:
        case QMetaType::Int:
        case QMetaType::UShort:
        case QMetaType::Short:
        case QMetaType::UChar:
        case QMetaType::ULongLong:
        case QMetaType::LongLong:
            return v.toLongLong() == 1;
        default:
            return false;
    }
}

QDBusMessage Appearance::readCall() {
    QDBusMessage call = QDBusMessage::createMethodCall(kService, kPath, kInterface, QStringLiteral("Read"));
    call << kNamespace << kKey;
    return call;
}

void Appearance::takeReply(const QDBusMessage& reply) {
    portalDark_.reset();
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) return;
    portalDark_ = darkFromPortalValue(reply.arguments().constFirst());
}

void Appearance::readPortal() {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        portalDark_.reset();
        return;
    }
    takeReply(bus.call(readCall(), QDBus::Block, kReadTimeoutMs));
}

void Appearance::refresh() {
    readPortal();
    apply();
}

bool Appearance::computeDark() const {
    if (portalDark_) return *portalDark_;
    if (!qobject_cast<QGuiApplication*>(QCoreApplication::instance())) return false;
    const QPalette p = QGuiApplication::palette();
    return luminance(p.color(QPalette::Window)) < luminance(p.color(QPalette::WindowText));
}

void Appearance::apply() {
    const bool dark = computeDark();
    if (dark == dark_) return;
    dark_ = dark;
    // Colours are resolved while painting, so a repaint is all a view needs.
    if (qobject_cast<QApplication*>(QCoreApplication::instance()))
        for (QWidget* w : QApplication::allWidgets()) w->update();
    emit changed(dark_);
}

bool Appearance::eventFilter(QObject* watched, QEvent* event) {
    // Sent to the application and to every widget; only the first delivery changes anything.
    if (event->type() == QEvent::ApplicationPaletteChange && !portalDark_) apply();
    return QObject::eventFilter(watched, event);
}

void Appearance::onSettingChanged(const QDBusMessage& signal) {
    const QVariantList args = signal.arguments();
    if (args.size() != 3 || args[0].toString() != kNamespace || args[1].toString() != kKey) return;
    portalDark_ = darkFromPortalValue(args[2]);
    apply();
}

void Appearance::onPortalRegistered() {
    // A portal that has just appeared may still be starting: ask without blocking, and
    // without the short deadline that only protects the first paint.
    auto* pending = new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(readCall()), this);
    connect(pending, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* call) {
        call->deleteLater();
        takeReply(call->reply());
        apply();
    });
}

void Appearance::onPortalUnregistered() {
    portalDark_.reset();
    apply();
}

}  // namespace corvi
