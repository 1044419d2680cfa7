#include "model/Passcode.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <memory>

#include "model/StrictBase64.h"

namespace corvi {
namespace {

constexpr qint64 maxRounds = 4'294'967'295;
// Rounds between two looks at the cancel flag: well under a millisecond of work.
constexpr quint32 roundsPerLook = 1024;

using Mac = std::unique_ptr<EVP_MAC, decltype(&EVP_MAC_free)>;
using MacCtx = std::unique_ptr<EVP_MAC_CTX, decltype(&EVP_MAC_CTX_free)>;

// PBKDF2-HMAC-SHA-256 (RFC 8018), written out so that a derivation can be abandoned between
// rounds: a round count chosen by the server may take hours.
bool pbkdf2(const QByteArray& password, const QByteArray& salt, quint32 rounds, QByteArray& out,
            const std::atomic<bool>* cancelled) {
    Mac mac(EVP_MAC_fetch(nullptr, OSSL_MAC_NAME_HMAC, nullptr), &EVP_MAC_free);
    MacCtx ctx(mac ? EVP_MAC_CTX_new(mac.get()) : nullptr, &EVP_MAC_CTX_free);
    char digest[] = "SHA256";
    const OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
                                 OSSL_PARAM_construct_end()};
    // The key is set once; a later init without a key starts a new HMAC with the same one.
    const auto* key = reinterpret_cast<const unsigned char*>(password.constData());
    if (!ctx || !EVP_MAC_init(ctx.get(), key, static_cast<size_t>(password.size()), params)) return false;

    unsigned char u[32], t[32];
    size_t length = 0;
    for (qsizetype offset = 0, block = 1; offset < out.size(); offset += 32, ++block) {
        const unsigned char index[4] = {
            static_cast<unsigned char>(block >> 24), static_cast<unsigned char>(block >> 16),
            static_cast<unsigned char>(block >> 8), static_cast<unsigned char>(block)};
        if (!EVP_MAC_init(ctx.get(), nullptr, 0, nullptr) ||
            !EVP_MAC_update(ctx.get(), reinterpret_cast<const unsigned char*>(salt.constData()),
                            static_cast<size_t>(salt.size())) ||
            !EVP_MAC_update(ctx.get(), index, sizeof index) ||
            !EVP_MAC_final(ctx.get(), u, &length, sizeof u))
            return false;
        std::copy(u, u + 32, t);
        for (quint32 round = 2; round <= rounds; ++round) {
            if (round % roundsPerLook == 0 && cancelled && cancelled->load(std::memory_order_relaxed))
                return false;
            if (!EVP_MAC_init(ctx.get(), nullptr, 0, nullptr) || !EVP_MAC_update(ctx.get(), u, sizeof u) ||
                !EVP_MAC_final(ctx.get(), u, &length, sizeof u))
                return false;
            for (int i = 0; i < 32; ++i) t[i] ^= u[i];
        }
        std::copy(t, t + std::min<qsizetype>(32, out.size() - offset), out.begin() + offset);
    }
    return true;
}

}  // namespace

bool Passcode::confere(const QString& typed, const std::atomic<bool>* cancelled) const {
    const std::optional<QByteArray> saltBytes = decodeStrictBase64(salt);
    if (!saltBytes) return false;
    const std::optional<QByteArray> expected = decodeStrictBase64(hash);
    // PBKDF2 knows no zero rounds and no empty output.
    if (!expected || expected->isEmpty()) return false;
    if (iterations <= 0 || iterations > maxRounds) return false;

    QByteArray derived(expected->size(), '\0');
    if (!pbkdf2(typed.toUtf8(), *saltBytes, static_cast<quint32>(iterations), derived, cancelled))
        return false;

    // Whole length, no early exit: the time does not depend on where the bytes differ.
    unsigned char diff = 0;
    for (qsizetype i = 0; i < derived.size(); ++i)
        diff |= static_cast<unsigned char>(derived[i] ^ (*expected)[i]);
    return diff == 0;
}

}  // namespace corvi
