#include "server/ServerAddress.h"

namespace corvi {
namespace {

bool isBlank(QChar c) {
    return c == u'\t' || c.category() == QChar::Separator_Space;
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

std::optional<QUrl> endpointUrl(const QString& base, const QString& path) {
    const QString text = base + path;
    for (QChar c : text)
        if (c.isSpace()) return std::nullopt;
    const QUrl url(text, QUrl::StrictMode);
    if (!url.isValid() || url.host().isEmpty()) return std::nullopt;
    if (url.scheme() != QLatin1String("http") && url.scheme() != QLatin1String("https")) return std::nullopt;
    return url;
}

bool isHeaderSafe(const QString& value) {
    for (QChar c : value)
        if (c.category() == QChar::Other_Control) return false;
    return true;
}

}  // namespace corvi
