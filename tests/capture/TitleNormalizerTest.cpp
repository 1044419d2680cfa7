#include <gtest/gtest.h>

#include "capture/TitleNormalizer.h"
#include "support/QtPrinters.h"

namespace corvi {
namespace {

TEST(TitleNormalizer, CleansSpinnersSizesAndBlanks) {
    struct Case {
        const char* raw;
        const char* cleaned;
    };
    const Case cases[] = {
        {"● Untitled-1 — 1024 × 768", "Untitled-1"},
        {"⠋ Exporting 3 files", "Exporting 3 files"},
        {"IMG_0001.jpg - 6000x4000", "IMG_0001.jpg"},
        {"Report | 2 X 3", "Report"},
        {"Poster – 1920×1080 \t ", "Poster"},
        {"A —1920x1080", "A"},
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
        // Only a size that ends the title goes, and only the last one.
        {"A — 1x2 — 3x4", "A — 1x2"},
        {"A — 1x2 — 3x4 · draft", "A — 1x2 — 3x4 · draft"},
        {"A — 1 × 2 × 3", "A — 1 × 2 × 3"},
        {"A — x × 3", "A — x × 3"},
        // The whole braille block goes; the spinner glyphs' neighbours stay.
        {"a⠀b⣿c⠁d", "abcd"},
        {"■□▐▀◔◕◠◡▲▶◀◈⟿", "■□▐▀◔◕◠◡▲▶◀◈⟿"},
        // Line breaks are blanks inside a run and for the size, but are never trimmed.
        {"Line one\r\nLine two", "Line one Line two"},
        {"Line one\nLine two", "Line one\nLine two"},
        {"\nNotes\n", "\nNotes\n"},
        {"Notes \n", "Notes"},
        {"\r\n", ""},
        {"Poster — 1920 × 1080\r\n", "Poster"},
        {"Poster — 1920 × 1080\u2028", "Poster"},
        {"Poster — 1920 × 1080\nmore", "Poster — 1920 × 1080\nmore"},
        // Unicode blanks, digits of any script, combining marks, text beyond the BMP.
        {"Poster\u2003—\u20031920\u00A0×\u00A01080", "Poster"},
        {"\u3000Notes\u3000", "Notes"},
        {"\u00A0\u00A0A\u2009\u2009B", "A B"},
        {"صورة — ١٩٢٠×١٠٨٠", "صورة"},
        {"Scan | １９２０x１０８０", "Scan"},
        {"\u200F\u05E9\u05DC\u05D5\u05DD | 2X3", "\u200F\u05E9\u05DC\u05D5\u05DD"},  // RLM is no blank
        {"Cafe\u0301 — 10 × 10", "Cafe\u0301"},
        {"· \u0301x ·", "\u0301x"},
        {"◐😀◑ Party 🎉⠋", "😀 Party 🎉"},
        {"▉𝟙𝟚", "𝟙𝟚"},
        {"Chart — 𝟙x𝟚", "Chart"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(TitleNormalizer::clean(QString::fromUtf8(c.raw)), QString::fromUtf8(c.cleaned)) << c.raw;
}

TEST(TitleNormalizer, HostileTitlesEndWell) {
    struct Case {
        const char* name;
        QString raw, cleaned;
    };
    const Case cases[] = {
        {"only blanks", QString(100000, u' '), QString()},
        {"only trim characters", QString::fromUtf8(" —–-|· \t\u00A0").repeated(12500), QString()},
        {"only spinners", QString::fromUtf8("◐⠋█").repeated(33334), QString()},
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
