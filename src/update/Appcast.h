#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QUrl>
#include <optional>

namespace corvi {

// One release in the feed, with its package.
struct AppcastItem {
    QString version;       // sparkle:version, what versions are compared by
    QString shortVersion;  // sparkle:shortVersionString, may be empty
    QString notes;         // description: plain text or simple HTML
    QUrl url;              // the enclosure
    qint64 length = 0;     // bytes, as announced
    QString type;
    QByteArray signature;  // sparkle:edSignature, decoded

    // What the person is shown.
    QString displayVersion() const { return shortVersion.isEmpty() ? version : shortVersion; }
};

// A Sparkle appcast: RSS 2.0 with the Sparkle namespace.
namespace Appcast {

inline constexpr const char* sparkleNamespace = "http://www.andymatuschak.org/xml-namespaces/sparkle";
// Larger packages are refused before any byte is fetched.
inline constexpr qint64 maxPackageBytes = 256LL * 1024 * 1024;

// The usable items (version, enclosure address, positive length within the limit and a
// 64-byte signature all present); none when the text is not well-formed RSS.
std::optional<QList<AppcastItem>> parse(const QByteArray& xml);

// The newest item newer than `running` and other than `skipped`; none when there is none.
std::optional<AppcastItem> newest(const QList<AppcastItem>& items, const QString& running,
                                  const QString& skipped);

}  // namespace Appcast
}  // namespace corvi
