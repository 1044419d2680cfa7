#pragma once

#include <QString>

namespace corvi {

// Turns a raw window title into the title a session is keyed on: progress spinners and a
// trailing pixel size go, so animation frames and resizes do not split one piece of work.
class TitleNormalizer {
  public:
    TitleNormalizer() = delete;

    // Pure and thread-safe; the patterns are built once per process.
    static QString clean(const QString& title);
};

}  // namespace corvi
