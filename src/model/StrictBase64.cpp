#include "model/StrictBase64.h"

namespace corvi {
namespace {

int sextet(char16_t c) {
    if (c >= u'A' && c <= u'Z') return c - u'A';
    if (c >= u'a' && c <= u'z') return c - u'a' + 26;
    if (c >= u'0' && c <= u'9') return c - u'0' + 52;
    if (c == u'+') return 62;
    if (c == u'/') return 63;
    return -1;
}

}  // namespace

std::optional<QByteArray> decodeStrictBase64(QStringView text) {
    const qsizetype n = text.size();
    if (n % 4 != 0) return std::nullopt;
    qsizetype padding = 0;
    if (n > 0 && text[n - 1] == u'=') ++padding;
    if (n > 1 && text[n - 2] == u'=') ++padding;

    QByteArray out;
    out.reserve(n / 4 * 3);
    for (qsizetype i = 0; i < n; i += 4) {
        const bool last = i + 4 == n;
        const qsizetype data = last ? 4 - padding : 4;
        quint32 group = 0;
        for (qsizetype k = 0; k < 4; ++k) {
            int v = 0;
            if (k < data) {
                v = sextet(text[i + k].unicode());
                if (v < 0) return std::nullopt;
            }
            group = (group << 6) | static_cast<quint32>(v);
        }
        // A padded group must not carry bits that the padding throws away.
        if (padding == 2 && last && (group & 0xFFFF) != 0) return std::nullopt;
        if (padding == 1 && last && (group & 0xFF) != 0) return std::nullopt;
        out.append(static_cast<char>(group >> 16));
        if (data > 2) out.append(static_cast<char>((group >> 8) & 0xFF));
        if (data > 3) out.append(static_cast<char>(group & 0xFF));
    }
    return out;
}

}  // namespace corvi
