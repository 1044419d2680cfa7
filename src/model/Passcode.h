#pragma once

#include <QString>
#include <QtGlobal>
#include <atomic>

namespace corvi {

// The organisation's passcode record: salt and PBKDF2-HMAC-SHA-256 output in base64, and the
// round count. The agent never holds the passcode itself.
struct Passcode {
    QString salt;
    QString hash;
    qint64 iterations = 0;

    // True when `typed` (its UTF-8 bytes exactly as given) derives the stored hash. Every
    // malformed record answers false. Any 32-bit round count is derived, however long that
    // takes: callers derive off the main thread, and may set `cancelled` to stop early (false).
    bool confere(const QString& typed, const std::atomic<bool>* cancelled = nullptr) const;

    bool operator==(const Passcode&) const = default;
};

}  // namespace corvi
