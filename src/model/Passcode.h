#pragma once

#include <QString>
#include <QtGlobal>

namespace corvi {

// The organisation's passcode record: salt and PBKDF2-HMAC-SHA-256 output in base64, and the
// round count. The agent never holds the passcode itself.
struct Passcode {
    QString salt;
    QString hash;
    qint64 iterations = 0;

    // True when `typed` (its UTF-8 bytes exactly as given) derives the stored hash. Every
    // malformed record answers false.
    bool confere(const QString& typed) const;

    bool operator==(const Passcode&) const = default;
};

}  // namespace corvi
