#include "update/SparkleVersion.h"

#include <QList>

namespace corvi {
namespace {

enum class Kind { number, period, text };

struct Part {
    Kind kind;
    QStringView text;
};

Kind kindOf(QChar c) {
    if (c.isDigit()) return Kind::number;
    if (c == u'.') return Kind::period;
    return Kind::text;
}

QList<Part> split(QStringView v) {
    QList<Part> parts;
    qsizetype i = 0;
    while (i < v.size()) {
        if (v[i].isSpace()) {
            ++i;
            continue;
        }
        const Kind kind = kindOf(v[i]);
        qsizetype j = i + 1;
        if (kind != Kind::period)
            while (j < v.size() && !v[j].isSpace() && kindOf(v[j]) == kind) ++j;
        parts.append({kind, v.mid(i, j - i)});
        i = j;
    }
    return parts;
}

// Digit runs of any length, without overflow: fewer significant digits is smaller.
int compareNumbers(QStringView a, QStringView b) {
    while (a.size() > 1 && a[0] == u'0') a = a.mid(1);
    while (b.size() > 1 && b[0] == u'0') b = b.mid(1);
    if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
    return a.compare(b);
}

// The first part from `from` on that is neither a period nor a zero: trailing ".0" groups say
// nothing ("1.0" == "1.0.0", "1.0.0a" == "1.0a").
const Part* firstTelling(const QList<Part>& parts, qsizetype from) {
    for (qsizetype i = from; i < parts.size(); ++i)
        if (parts[i].kind == Kind::text ||
            (parts[i].kind == Kind::number && compareNumbers(parts[i].text, u"0") != 0))
            return &parts[i];
    return nullptr;
}

int sign(int v) {
    return (v > 0) - (v < 0);
}

}  // namespace

int compareVersions(const QString& a, const QString& b) {
    const QList<Part> pa = split(a);
    const QList<Part> pb = split(b);
    const qsizetype n = std::min(pa.size(), pb.size());
    for (qsizetype i = 0; i < n; ++i) {
        const Part& x = pa[i];
        const Part& y = pb[i];
        if (x.kind == y.kind) {
            const int c = x.kind == Kind::number ? compareNumbers(x.text, y.text)
                          : x.kind == Kind::text ? x.text.compare(y.text)
                                                 : 0;
            if (c != 0) return sign(c);
            continue;
        }
        if (x.kind == Kind::text) return -1;  // a number or a period beats letters
        if (y.kind == Kind::text) return 1;
        return x.kind == Kind::number ? 1 : -1;  // a number beats a period
    }
    if (pa.size() == pb.size()) return 0;
    const bool aLonger = pa.size() > pb.size();
    const QList<Part>& longer = aLonger ? pa : pb;
    const Part* telling = firstTelling(longer, n);
    if (!telling) return 0;
    // "1.0b" is a pre-release of "1.0"; "1.0.1" comes after it.
    const int longerIsNewer = telling->kind == Kind::text ? -1 : 1;
    return aLonger ? longerIsNewer : -longerIsNewer;
}

}  // namespace corvi
