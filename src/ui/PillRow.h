#pragma once

#include <QString>

#include "ui/ThemedWidgets.h"

namespace corvi {

// A key/value row on a fully rounded surf3 fill: the key on the left, then an optional status
// dot, the value (one line, shrinking before it is cut) and an optional trailing widget.
class PillRow : public Capsule {
    Q_OBJECT
  public:
    explicit PillRow(QWidget* parent = nullptr);

    void setKey(const QString& k);
    void setValue(const QString& v);
    // No colour: no dot.
    void setDot(Paint dot);
    // Owned by the row; null removes nothing that is there already.
    void setTrailing(QWidget* trailing);

    QString key() const;
    QString value() const { return value_->text(); }
    Dot* dot() const { return dot_; }
    FittedLabel* valueLabel() const { return value_; }

  private:
    ThemedLabel* key_;
    Dot* dot_;
    FittedLabel* value_;
};

}  // namespace corvi
