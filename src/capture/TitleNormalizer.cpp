#include "capture/TitleNormalizer.h"

#include <QRegularExpression>
#include <algorithm>
#include <bitset>

namespace corvi {
namespace {

// Unicode White_Space, which is what the title patterns mean by a blank (line breaks included).
#define CORVI_WS u"[\\t\\n\\x{0B}\\f\\r\\x{85}\\p{Z}]"

constexpr char16_t glyphBlockStart = 0x2580;  // every spinner glyph outside braille lies here

struct Patterns {
    std::bitset<0x80> spinnerGlyphs;
    // \z, not $: the size must end the text, not a line before a final line break.
    QRegularExpression trailingSize{QStringLiteral(CORVI_WS "*[—–\\-|]" CORVI_WS "*\\d+" CORVI_WS
                                                            "*[×xX]" CORVI_WS "*\\d+" CORVI_WS "*\\z"),
                                    QRegularExpression::UseUnicodePropertiesOption};

    Patterns() {
        for (QChar c : QStringView(u"◐◑◒◓◴◵◶◷◜◝◞◟▉▊▋▌▍▎▏▁▂▃▄▅▆▇█◂◃▸▹●○◆◇"))
            spinnerGlyphs.set(c.unicode() - glyphBlockStart);
        // ⠿ (U+283F) belongs to the braille block, which goes as a whole.
        trailingSize.optimize();
    }

    bool isSpinner(QChar c) const {
        const char16_t u = c.unicode();
        if (u >= 0x2800 && u <= 0x28FF) return true;
        return u >= glyphBlockStart && u < glyphBlockStart + spinnerGlyphs.size() &&
               spinnerGlyphs.test(u - glyphBlockStart);
    }
};

#undef CORVI_WS

const Patterns& patterns() {
    static const Patterns p;
    return p;
}

// The blank class of the size pattern, for the steps done by hand. All of it lies in the BMP.
bool isBlank(QChar c) {
    const char16_t u = c.unicode();
    if ((u >= u'\t' && u <= u'\r') || u == u' ' || u == 0x85) return true;
    if (u < 0xA0) return false;
    const auto cat = c.category();
    return cat == QChar::Separator_Space || cat == QChar::Separator_Line || cat == QChar::Separator_Paragraph;
}

// Space separators, tab and the separators a title decorates its ends with; never line breaks.
bool isTrimmed(QChar c) {
    const char16_t u = c.unicode();
    return u == u'\t' || u == u' ' || u == u'—' || u == u'–' || u == u'-' || u == u'|' || u == u'·' ||
           (u >= 0xA0 && c.category() == QChar::Separator_Space);
}

// Every spinner lies in the BMP, so a surrogate (half of a scalar beyond it) is always kept
// and a code-unit walk keeps exactly the scalars a scalar walk keeps.
QString withoutSpinners(const QString& title, const Patterns& p) {
    const auto first = std::find_if(title.begin(), title.end(), [&](QChar c) { return p.isSpinner(c); });
    if (first == title.end()) return title;
    QString text;
    text.reserve(title.size());
    text.append(title.constData(), first - title.begin());
    for (auto it = first; it != title.end(); ++it)
        if (!p.isSpinner(*it)) text.append(*it);
    return text;
}

bool isSizeSeparator(QChar c) {
    const char16_t u = c.unicode();
    return u == u'—' || u == u'–' || u == u'-' || u == u'|';
}

// Removes the trailing size. Nothing after the pattern's separator can be one, so a match
// uses the text's last separator and its leftmost start is the blank run before it: the
// pattern is tried there alone, which also spares every other start position.
void removeTrailingSize(QString& text, const QRegularExpression& trailingSize) {
    qsizetype end = text.size();
    while (end > 0 && isBlank(text[end - 1])) --end;
    // Only a digit (or a low surrogate, the end of one beyond the BMP) can end a size.
    if (end == 0 || !(text[end - 1].isDigit() || text[end - 1].isLowSurrogate())) return;
    qsizetype sep = end;
    while (sep > 0 && !isSizeSeparator(text[sep - 1])) --sep;
    if (sep == 0) return;
    qsizetype start = sep - 1;
    while (start > 0 && isBlank(text[start - 1])) --start;
    if (trailingSize
            .match(text, start, QRegularExpression::NormalMatch,
                   QRegularExpression::AnchorAtOffsetMatchOption)
            .hasMatch())
        text.truncate(start);
}

// Every run of two or more blanks becomes one space.
QString collapseBlankRuns(const QString& text) {
    qsizetype i = 1;
    while (i < text.size() && !(isBlank(text[i]) && isBlank(text[i - 1]))) ++i;
    if (i >= text.size()) return text;
    QString out;
    out.reserve(text.size());
    out.append(text.constData(), i - 1);
    for (i = i - 1; i < text.size();) {
        qsizetype run = i;
        while (run < text.size() && isBlank(text[run])) ++run;
        if (run - i >= 2) {
            out.append(u' ');
            i = run;
        } else {
            out.append(text[i++]);
        }
    }
    return out;
}

}  // namespace

QString TitleNormalizer::clean(const QString& title) {
    if (title.isEmpty()) return {};
    const Patterns& p = patterns();

    QString text = withoutSpinners(title, p);
    removeTrailingSize(text, p.trailingSize);
    text = collapseBlankRuns(text);

    qsizetype begin = 0, end = text.size();
    while (begin < end && isTrimmed(text[begin])) ++begin;
    while (end > begin && isTrimmed(text[end - 1])) --end;
    return begin == 0 && end == text.size() ? text : text.mid(begin, end - begin);
}

}  // namespace corvi
