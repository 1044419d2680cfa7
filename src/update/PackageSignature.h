#pragma once

#include <QByteArray>
#include <QString>

namespace corvi {

// Ed25519 over a whole package file.
namespace PackageSignature {

// The raw 32-byte public key from its base64 text; empty when the text is not one.
QByteArray publicKeyFromBase64(const QString& text);

// True only when `signature` (64 bytes) is the key's signature of the file's exact bytes.
bool verifyFile(const QString& path, const QByteArray& publicKey, const QByteArray& signature);

}  // namespace PackageSignature
}  // namespace corvi
