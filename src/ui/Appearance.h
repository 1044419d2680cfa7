#pragma once

#include <QObject>
#include <QVariant>
#include <optional>

#include <QDBusMessage>

namespace corvi {

// Whether the desktop is in its dark appearance, kept for the life of the application so a
// colour read costs no D-Bus call. Dark exactly when the desktop portal's
// org.freedesktop.appearance color-scheme is 1 (prefer dark); with no portal answer, when the
// application palette's window colour is darker than its text colour. Any other portal value
// is light. Followed live: the portal's SettingChanged, the portal coming or going, and
// application palette changes; every widget is repainted when the answer flips.
class Appearance : public QObject {
    Q_OBJECT
  public:
    // The one instance, created on first use as a child of the application object. Null when
    // there is no application object (then callers take the light values).
    static Appearance* instance();

    bool isDark() const { return dark_; }

    // Reads the portal again (blocking, short timeout) and re-applies the rule.
    void refresh();

    // The meaning of one portal answer: Read wraps the value twice, SettingChanged once.
    // True for 1 (dark), false for any other value (light).
    static bool darkFromPortalValue(const QVariant& value);

  signals:
    void changed(bool dark);

  protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

  private slots:
    void onSettingChanged(const QDBusMessage& signal);
    void onPortalRegistered();
    void onPortalUnregistered();

  private:
    explicit Appearance(QObject* parent);
    static QDBusMessage readCall();
    void takeReply(const QDBusMessage& reply);
    void readPortal();
    bool computeDark() const;
    void apply();

    std::optional<bool> portalDark_;  // empty: the portal did not answer
    bool dark_ = false;
};

}  // namespace corvi
