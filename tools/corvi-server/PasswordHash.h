#pragma once

#include <QByteArray>
#include <QString>
#include <optional>

namespace corvi::refserver {

// A PBKDF2-HMAC-SHA-256 record: the form in which the server keeps passwords and in which it
// hands the organisation's passcode to agents (salt and hash travel as base64).
struct PasswordHash {
    QByteArray salt;
    QByteArray hash;
    int iterations = 0;

    // A fresh 16-byte salt and a 32-byte hash; none when the derivation fails.
    static std::optional<PasswordHash> make(const QString& secret, int iterations);
    bool verify(const QString& secret) const;

    bool operator==(const PasswordHash&) const = default;
};

// PBKDF2-HMAC-SHA-256 over the UTF-8 bytes of the secret; empty on failure.
QByteArray pbkdf2Sha256(const QByteArray& secret, const QByteArray& salt, int iterations, int length);

// Cryptographically random bytes (empty on failure), and their lower-case hex form for tokens.
QByteArray randomBytes(int count);
QString randomToken();

// SHA-256 of a token in hex: tokens and keys are stored only as digests.
QString tokenDigest(const QString& token);

}  // namespace corvi::refserver
