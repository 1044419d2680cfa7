#include <gtest/gtest.h>

#include "capture/TitleNormalizer.h"

namespace corvi {
namespace {

struct Case {
    const char* raw;
    const char* cleaned;
};

// Printable form of a title for failure messages: control characters spelled out.
std::string shown(const QString& s) {
    std::string out;
    for (QChar c : s) {
        if (c == u'\n')
            out += "\\n";
        else if (c == u'\r')
            out += "\\r";
        else if (c == u'\t')
            out += "\\t";
        else
            out += QString(c).toStdString();
    }
    return out.size() > 80 ? out.substr(0, 80) + "..." : out;
}

void expectCleaned(const Case* begin, const Case* end) {
    for (const Case* c = begin; c != end; ++c) {
        const QString raw = QString::fromUtf8(c->raw);
        EXPECT_EQ(shown(TitleNormalizer::clean(raw)), shown(QString::fromUtf8(c->cleaned)))
            << "raw: " << shown(raw);
    }
}

TEST(TitleNormalizer, RealTitles) {
    const Case cases[] = {
        {"● Untitled-1 — 1024 × 768", "Untitled-1"},
        {"⠋ Exporting 3 files", "Exporting 3 files"},
        {"IMG_0001.jpg - 6000x4000", "IMG_0001.jpg"},
        {"Report | 2 X 3", "Report"},
        {"IMG - 6000 X 4000", "IMG"},
        {"Scan | 800x600", "Scan"},
        {"Poster — 1920 × 1080", "Poster"},
        {"Poster – 1920×1080   ", "Poster"},
        {"Photo 3x4", "Photo 3x4"},
        {"A — B", "A — B"},
        {"— 1920×1080", ""},
        {"1920×1080", "1920×1080"},
        {"Notes —", "Notes"},
        {"· Notes ·", "Notes"},
        {"A · B", "A · B"},
        {"A  B   C", "A B C"},
        {"A\tB", "A\tB"},
        {"A\t\tB", "A B"},
        {"Build▉▊ing", "Building"},
        {"", ""},
        {"◐◑◒◓◴◵◶◷◜◝◞◟▉▊▋▌▍▎▏▁▂▃▄▅▆▇█◂◃▸▹●○◆◇⠿", ""},
        {"Render ▁▂▃▄▅ 40% — main.psd", "Render 40% — main.psd"},
        {"main.psd @ 66.7% (Layer 1, RGB/8) — 3000 × 2000", "main.psd @ 66.7% (Layer 1, RGB/8)"},
        // Only the last size goes; a size with nothing but blanks after it is still last.
        {"A — 1x2 — 3x4", "A — 1x2"},
        {"A — 1x2 — 3x4 · draft", "A — 1x2 — 3x4 · draft"},
        {"Poster — 1920 × 1080  \t ", "Poster"},
        {"A — 1 × 2 × 3", "A — 1 × 2 × 3"},
        {"A — x × 3", "A — x × 3"},
        {"A —1920x1080", "A"},
    };
    expectCleaned(std::begin(cases), std::end(cases));
}

TEST(TitleNormalizer, SpinnerSetIsExactAndBrailleGoesWhole) {
    const Case cases[] = {
        {"a⠀b⣿c⠁d", "abcd"},               // first, last and a middle braille pattern
        {"■□▐▀◔◕◠◡▲▶◀◈", "■□▐▀◔◕◠◡▲▶◀◈"},  // neighbours of the spinner glyphs stay
        {"⟿ arrow", "⟿ arrow"},
        {"\xE2\xA0\x8B", ""},
    };
    expectCleaned(std::begin(cases), std::end(cases));
}

TEST(TitleNormalizer, LineBreaksAreBlanksInsideButNotTrimmed) {
    const Case cases[] = {
        {"Line one\r\nLine two", "Line one Line two"},
        {"Line one\nLine two", "Line one\nLine two"},
        {"Notes\n", "Notes\n"},
        {"\nNotes", "\nNotes"},
        {"Notes \n", "Notes"},
        {"\n", "\n"},
        {"\r\n", ""},  // one blank after collapsing, then trimmed
        // The size pattern's own blanks take line breaks, so a suffix before a final break goes
        // with it; text after the break keeps it in place.
        {"Poster — 1920 × 1080\n", "Poster"},
        {"Poster — 1920 × 1080\r\n", "Poster"},
        {"Poster — 1920 × 1080\u2028", "Poster"},
        {"Poster — 1920 × 1080\nmore", "Poster — 1920 × 1080\nmore"},
    };
    expectCleaned(std::begin(cases), std::end(cases));
}

TEST(TitleNormalizer, UnicodeBlanksDigitsAndScripts) {
    const Case cases[] = {
        {"Poster\u2003—\u20031920\u00A0×\u00A01080", "Poster"},  // em space, no-break space
        {"\u3000Notes\u3000", "Notes"},                          // ideographic space
        {"\u00A0\u00A0A\u2009\u2009B", "A B"},
        {"صورة — ١٩٢٠×١٠٨٠", "صورة"},          // Arabic-Indic digits are digits
        {"Scan | １９２０x１０８０", "Scan"},  // full-width digits
        {"שלום עולם — 800x600", "שלום עולם"},
        {"\u200F\u05E9\u05DC\u05D5\u05DD | 2X3", "\u200F\u05E9\u05DC\u05D5\u05DD"},  // RLM is not a blank
        {"Cafe\u0301 — 10 × 10", "Cafe\u0301"},
        {"· \u0301x ·", "\u0301x"},
        {"n\u0303o\u0308 ◐", "n\u0303o\u0308"},
        {"◐😀◑ Party 🎉⠋", "😀 Party 🎉"},
        {"🎉▉", "🎉"},
        {"▉𝟙𝟚", "𝟙𝟚"},
        {"Chart — 𝟙x𝟚", "Chart"},  // mathematical digits outside the BMP
    };
    expectCleaned(std::begin(cases), std::end(cases));
}

TEST(TitleNormalizer, HostileTitlesEndWell) {
    struct Big {
        const char* name;
        QString raw;
        QString cleaned;
    };
    const QString letters(100000, u'a');
    const Big cases[] = {
        {"only blanks", QString(100000, u' '), QString()},
        {"only trim characters", QString::fromUtf8(" —–-|· \t\u00A0").repeated(12500), QString()},
        {"only spinners", QString::fromUtf8("◐⠋█").repeated(33334), QString()},
        {"letters", letters, letters},
        {"letters around blanks", u'a' + QString(99998, u' ') + u'b', QStringLiteral("a b")},
        {"size after many blanks", u'A' + QString(99990, u' ') + QStringLiteral("- 1x2"),
         QStringLiteral("A")},
        {"many separators", QStringLiteral("-1x1").repeated(25000),
         QStringLiteral("-1x1").repeated(24999).mid(1)},
        {"many sizes", QStringLiteral("a-1x1").repeated(20000),
         QStringLiteral("a-1x1").repeated(19999) + u'a'},
        {"digits", QString(100000, u'7'), QString(100000, u'7')},
    };
    for (const auto& c : cases) EXPECT_EQ(TitleNormalizer::clean(c.raw), c.cleaned) << c.name;
}

}  // namespace
}  // namespace corvi
