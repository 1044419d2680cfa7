#pragma once

#include <QString>
#include <QWidget>

class QLineEdit;

namespace corvi {

class Capsule;
class ThemedLabel;

// A labelled text field on a capsule: the label above, the borderless field below. `secure`
// hides what is typed.
class PillField : public QWidget {
    Q_OBJECT
  public:
    PillField(bool secure, QWidget* parent = nullptr);

    void setLabel(const QString& label);
    void setPlaceholder(const QString& placeholder);
    QString text() const;
    QLineEdit* field() const { return field_; }
    Capsule* capsule() const { return capsule_; }

  signals:
    void textChanged();
    void returnPressed();

  private:
    ThemedLabel* label_;
    Capsule* capsule_;
    QLineEdit* field_;
};

}  // namespace corvi
