#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QMutex>
#include <QObject>
#include <QThread>
#include <QVariant>
#include <atomic>

namespace corvi::test {

// The Settings interface of a desktop portal, served from its own thread and bus connection
// so the code under test can block on it from the main thread.
class StandInSettings : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.portal.Settings")
  public:
    enum class Wrap { VariantInVariant, Variant, NotFound };

    explicit StandInSettings(QString connectionName) : connection_(std::move(connectionName)) {}

    void setAnswer(const QVariant& value, Wrap wrap);
    int reads() const { return reads_; }

  public slots:
    QDBusVariant Read(const QString& ns, const QString& key, const QDBusMessage& message);

  private:
    QString connection_;
    mutable QMutex mutex_;
    QVariant value_;
    Wrap wrap_ = Wrap::NotFound;
    std::atomic<int> reads_{0};
};

// A stand-in org.freedesktop.portal.Desktop on the session bus. It claims the name on
// start() and releases it on stop() or destruction.
class StandInPortal {
  public:
    StandInPortal();
    ~StandInPortal();
    StandInPortal(const StandInPortal&) = delete;
    StandInPortal& operator=(const StandInPortal&) = delete;

    bool start();
    void stop();

    void answer(const QVariant& value, StandInSettings::Wrap wrap) { settings_->setAnswer(value, wrap); }
    int reads() const { return settings_->reads(); }
    void emitSettingChanged(const QString& ns, const QString& key, const QVariant& value);

  private:
    QThread thread_;
    StandInSettings* settings_;
    QDBusConnection bus_;
    bool claimed_ = false;
};

}  // namespace corvi::test
