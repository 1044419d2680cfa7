#pragma once

#include <QByteArray>
#include <QStringView>
#include <optional>

namespace corvi {

// RFC 4648 base64, standard alphabet with "=" padding and nothing else: no blanks, no line
// breaks, length a multiple of four, unused bits of the last group zero. Anything else: none.
std::optional<QByteArray> decodeStrictBase64(QStringView text);

}  // namespace corvi
