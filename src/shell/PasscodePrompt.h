#pragma once

#include <QString>

#include "model/Passcode.h"

namespace corvi {

// Asks for the organisation's passcode in a modal dialog, at most three times.
class PasscodePrompt {
  public:
    virtual ~PasscodePrompt() = default;

    // True when a typed passcode matched within three attempts. The first dialog shows `reason`
    // with an information icon, the next ones `erro` with a warning icon. "Cancelar" or closing
    // the dialog answers false at once, without checking what was typed or while checking it.
    // The check runs off the main thread; the event loop runs on meanwhile.
    virtual bool pede(const QString& reason, const Passcode& passcode, const QString& titulo,
                      const QString& erro);

    static constexpr int attempts = 3;
};

}  // namespace corvi
