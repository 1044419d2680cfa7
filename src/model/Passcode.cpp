#include "model/Passcode.h"

#include <openssl/evp.h>

#include <climits>

#include "model/StrictBase64.h"

namespace corvi {
namespace {

// A record comes from the organisation's server and is checked on the main thread while the
// prompt waits: a hostile or mistaken round count must not freeze the agent. The cap counts
// HMAC-SHA-256 block rounds (rounds × 32-byte output blocks), about a second of work here.
constexpr qint64 maxWork = 10'000'000;
constexpr qint64 maxRounds = 4'294'967'295;

}  // namespace

bool Passcode::confere(const QString& typed) const {
    const std::optional<QByteArray> saltBytes = decodeStrictBase64(salt);
    if (!saltBytes) return false;
    const std::optional<QByteArray> expected = decodeStrictBase64(hash);
    if (!expected || expected->isEmpty()) return false;
    if (iterations <= 0 || iterations > maxRounds) return false;
    const qint64 blocks = (expected->size() + 31) / 32;
    if (iterations > maxWork / blocks) return false;

    const QByteArray password = typed.toUtf8();
    if (password.size() > INT_MAX || saltBytes->size() > INT_MAX || expected->size() > INT_MAX) return false;
    QByteArray derived(expected->size(), '\0');
    if (PKCS5_PBKDF2_HMAC(password.constData(), static_cast<int>(password.size()),
                          reinterpret_cast<const unsigned char*>(saltBytes->constData()),
                          static_cast<int>(saltBytes->size()), static_cast<int>(iterations), EVP_sha256(),
                          static_cast<int>(derived.size()),
                          reinterpret_cast<unsigned char*>(derived.data())) != 1)
        return false;

    // Whole length, no early exit: the time does not depend on where the bytes differ.
    unsigned char diff = 0;
    for (qsizetype i = 0; i < derived.size(); ++i)
        diff |= static_cast<unsigned char>(derived[i] ^ (*expected)[i]);
    return diff == 0;
}

}  // namespace corvi
