#include "PasswordHash.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <QCryptographicHash>

namespace corvi::refserver {

QByteArray pbkdf2Sha256(const QByteArray& secret, const QByteArray& salt, int iterations, int length) {
    if (iterations < 1 || length < 1) return {};
    QByteArray out(length, '\0');
    const int ok = PKCS5_PBKDF2_HMAC(secret.constData(), static_cast<int>(secret.size()),
                                     reinterpret_cast<const unsigned char*>(salt.constData()),
                                     static_cast<int>(salt.size()), iterations, EVP_sha256(), length,
                                     reinterpret_cast<unsigned char*>(out.data()));
    return ok == 1 ? out : QByteArray();
}

QByteArray randomBytes(int count) {
    QByteArray out(count, '\0');
    if (RAND_bytes(reinterpret_cast<unsigned char*>(out.data()), count) != 1) return {};
    return out;
}

QString randomToken() {
    return QString::fromLatin1(randomBytes(32).toHex());
}

QString tokenDigest(const QString& token) {
    return QString::fromLatin1(QCryptographicHash::hash(token.toUtf8(), QCryptographicHash::Sha256).toHex());
}

std::optional<PasswordHash> PasswordHash::make(const QString& secret, int iterations) {
    PasswordHash h;
    h.salt = randomBytes(16);
    h.iterations = iterations;
    if (h.salt.isEmpty()) return std::nullopt;
    h.hash = pbkdf2Sha256(secret.toUtf8(), h.salt, iterations, 32);
    if (h.hash.isEmpty()) return std::nullopt;
    return h;
}

bool PasswordHash::verify(const QString& secret) const {
    if (hash.isEmpty()) return false;
    const QByteArray derived = pbkdf2Sha256(secret.toUtf8(), salt, iterations, static_cast<int>(hash.size()));
    return derived.size() == hash.size() &&
           CRYPTO_memcmp(derived.constData(), hash.constData(), static_cast<size_t>(hash.size())) == 0;
}

}  // namespace corvi::refserver
