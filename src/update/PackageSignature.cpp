#include "update/PackageSignature.h"

#include <openssl/evp.h>

#include <QFile>
#include <memory>

namespace corvi::PackageSignature {

QByteArray publicKeyFromBase64(const QString& text) {
    const auto key =
        QByteArray::fromBase64Encoding(text.trimmed().toLatin1(), QByteArray::AbortOnBase64DecodingErrors);
    return key && key.decoded.size() == 32 ? key.decoded : QByteArray();
}

bool verifyFile(const QString& path, const QByteArray& publicKey, const QByteArray& signature) {
    if (publicKey.size() != 32 || signature.size() != 64) return false;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) return false;
    // Ed25519 signs the message in one piece; a mapping spares a copy of the package.
    const qint64 size = file.size();
    const uchar* data = size > 0 ? file.map(0, size) : reinterpret_cast<const uchar*>("");
    if (!data) return false;

    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
        EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr,
                                    reinterpret_cast<const unsigned char*>(publicKey.constData()),
                                    size_t(publicKey.size())),
        EVP_PKEY_free);
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    return key && ctx && EVP_DigestVerifyInit(ctx.get(), nullptr, nullptr, nullptr, key.get()) == 1 &&
           EVP_DigestVerify(ctx.get(), reinterpret_cast<const unsigned char*>(signature.constData()),
                            size_t(signature.size()), data, size_t(size)) == 1;
}

}  // namespace corvi::PackageSignature
