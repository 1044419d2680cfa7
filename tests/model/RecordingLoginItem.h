#pragma once

#include <QStringList>
#include <functional>

#include "platform/LoginItem.h"

namespace corvi::test {

// A login item that records what the model asked of it.
class RecordingLoginItem final : public LoginItem {
  public:
    bool installed = true;
    bool systemWide = false;
    Status current = Status::notRegistered;
    bool fail = false;
    QStringList calls;
    std::function<void()> onChange;

    bool installedProgram() const override { return installed; }
    bool systemWideEntryPresent() const override { return systemWide; }
    Status status() const override { return current; }
    bool registerItem(QString& error) override {
        return act(QStringLiteral("register"), Status::enabled, error);
    }
    bool unregisterItem(QString& error) override {
        return act(QStringLiteral("unregister"), Status::notRegistered, error);
    }

  private:
    bool act(const QString& name, Status after, QString& error) {
        calls << name;
        if (onChange) onChange();
        if (fail) {
            error = QStringLiteral("refused");
            return false;
        }
        current = after;
        return true;
    }
};

}  // namespace corvi::test
