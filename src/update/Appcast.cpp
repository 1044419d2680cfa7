#include "update/Appcast.h"

#include <QXmlStreamReader>

#include "update/SparkleVersion.h"

namespace corvi::Appcast {
namespace {

const QString sparkle = QString::fromLatin1(sparkleNamespace);

bool usable(const AppcastItem& item) {
    return !item.version.isEmpty() && item.url.isValid() && !item.url.host().isEmpty() && item.length > 0 &&
           item.length <= maxPackageBytes && item.signature.size() == 64;
}

void readEnclosure(QXmlStreamReader& xml, AppcastItem& item) {
    const QXmlStreamAttributes a = xml.attributes();
    item.url = QUrl(a.value(QLatin1String("url")).toString().trimmed(), QUrl::StrictMode);
    bool ok = false;
    const qint64 length = a.value(QLatin1String("length")).toLongLong(&ok);
    item.length = ok ? length : 0;
    item.type = a.value(QLatin1String("type")).toString();
    const auto signature = QByteArray::fromBase64Encoding(
        a.value(sparkle, QLatin1String("edSignature")).toLatin1(), QByteArray::AbortOnBase64DecodingErrors);
    item.signature = signature ? *signature : QByteArray();
    // Older feeds carry the versions on the enclosure.
    if (item.version.isEmpty())
        item.version = a.value(sparkle, QLatin1String("version")).toString().trimmed();
    if (item.shortVersion.isEmpty())
        item.shortVersion = a.value(sparkle, QLatin1String("shortVersionString")).toString().trimmed();
    xml.skipCurrentElement();
}

AppcastItem readItem(QXmlStreamReader& xml) {
    AppcastItem item;
    QString elementVersion, elementShort;
    while (xml.readNextStartElement()) {
        const auto ns = xml.namespaceUri();
        const auto name = xml.name();
        if (ns == sparkle && name == u"version")
            elementVersion = xml.readElementText().trimmed();
        else if (ns == sparkle && name == u"shortVersionString")
            elementShort = xml.readElementText().trimmed();
        else if (ns.isEmpty() && name == u"description")
            item.notes = xml.readElementText();
        else if (ns.isEmpty() && name == u"enclosure")
            readEnclosure(xml, item);
        else
            xml.skipCurrentElement();
    }
    if (!elementVersion.isEmpty()) item.version = elementVersion;
    if (!elementShort.isEmpty()) item.shortVersion = elementShort;
    return item;
}

}  // namespace

std::optional<QList<AppcastItem>> parse(const QByteArray& text) {
    QXmlStreamReader xml(text);
    QList<AppcastItem> items;
    if (!xml.readNextStartElement() || xml.name() != u"rss") return std::nullopt;
    while (xml.readNextStartElement()) {
        if (xml.name() != u"channel") {
            xml.skipCurrentElement();
            continue;
        }
        while (xml.readNextStartElement()) {
            if (xml.name() != u"item" || !xml.namespaceUri().isEmpty()) {
                xml.skipCurrentElement();
                continue;
            }
            AppcastItem item = readItem(xml);
            if (usable(item)) items.append(item);
        }
    }
    // Read to the end, so a document broken after the last item is refused too.
    while (!xml.atEnd()) xml.readNext();
    if (xml.hasError()) return std::nullopt;
    return items;
}

std::optional<AppcastItem> newest(const QList<AppcastItem>& items, const QString& running,
                                  const QString& skipped) {
    std::optional<AppcastItem> best;
    for (const AppcastItem& item : items) {
        if (compareVersions(item.version, running) <= 0) continue;
        if (!skipped.isEmpty() && compareVersions(item.version, skipped) == 0) continue;
        if (!best || compareVersions(item.version, best->version) > 0) best = item;
    }
    return best;
}

}  // namespace corvi::Appcast
