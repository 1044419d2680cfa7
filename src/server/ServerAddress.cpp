#include "server/ServerAddress.h"

#include <QHostAddress>

namespace corvi {
namespace {

bool isBlank(QChar c) {
    return c == u'\t' || c.category() == QChar::Separator_Space;
}

// QUrl has already lower-cased the name and written any IPv4 form (127.1, 0x7f.1) in full.
// "localhost." and "*.localhost" are left out: the resolver may send those to DNS.
bool isLoopbackHost(const QString& host) {
    return host == QLatin1String("localhost") || QHostAddress(host).isLoopback();
}

}  // namespace

QString normalizedBase(const QString& serverURL) {
    qsizetype first = 0;
    qsizetype last = serverURL.size();
    while (first < last && isBlank(serverURL.at(first))) ++first;
    while (last > first && isBlank(serverURL.at(last - 1))) --last;
    QString base = serverURL.mid(first, last - first);
    if (base.endsWith(u'/')) base.chop(1);
    return base;
}

std::optional<QUrl> endpointUrl(const QString& base, const QString& path, AddressFault* fault) {
    const auto refuse = [fault](AddressFault why) -> std::optional<QUrl> {
        if (fault) *fault = why;
        return std::nullopt;
    };
    const QString text = base + path;
    for (QChar c : text)
        if (c.isSpace()) return refuse(AddressFault::malformed);
    const QUrl url(text, QUrl::StrictMode);
    if (!url.isValid() || url.host().isEmpty()) return refuse(AddressFault::malformed);
    if (url.scheme() == QLatin1String("https")) return url;
    if (url.scheme() != QLatin1String("http")) return refuse(AddressFault::malformed);
    return isLoopbackHost(url.host()) ? std::optional(url) : refuse(AddressFault::cleartext);
}

bool isHeaderSafe(const QString& value) {
    for (QChar c : value)
        if (c.category() == QChar::Other_Control) return false;
    return true;
}

}  // namespace corvi
