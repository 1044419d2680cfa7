// Costs of the per-tick capture work: cleaning a title, naming a category, reading CPU use.
#include <unistd.h>

#include <QStringList>
#include <random>

#include "BenchUtil.h"
#include "capture/Classifier.h"
#include "capture/ProcessCPU.h"
#include "capture/TitleNormalizer.h"
#include "platform/Clock.h"

using namespace corvi;

namespace {

// Titles as applications write them: plain, sized, spinning, long, non-Latin.
QStringList variedTitles(int count) {
    const QStringList stems{
        QStringLiteral("main.psd @ 66.7% (Layer 1, RGB/8)"),
        QStringLiteral("● Untitled-1"),
        QStringLiteral("⠋ Exporting 3 files"),
        QStringLiteral("Inbox (3) — someone@example.com — Mail"),
        QStringLiteral("Build▉▊▋ing catalogue"),
        QStringLiteral("صورة العائلة"),
        QStringLiteral("Wedding 2026 · Selects · 1 of 842"),
        QStringLiteral("😀 Party  planning   notes"),
    };
    const QStringList suffixes{QString(),
                               QStringLiteral(" — 1920 × 1080"),
                               QStringLiteral(" | 800x600"),
                               QStringLiteral(" - 6000 X 4000"),
                               QStringLiteral(" —"),
                               QStringLiteral("  ")};
    std::mt19937 rng(42);
    QStringList titles;
    titles.reserve(count);
    for (int i = 0; i < count; ++i)
        titles << stems[static_cast<qsizetype>(rng() % stems.size())] + QString::number(i) +
                      suffixes[static_cast<qsizetype>(rng() % suffixes.size())];
    return titles;
}

}  // namespace

int main() {
    TitleNormalizer::clean(QStringLiteral("warm-up — 1x1"));

    const QStringList titles = variedTitles(10000);
    std::size_t sink = 0;
    const double perTitle =
        bench::medianNanos(9,
                           [&] {
                               for (const auto& t : titles)
                                   sink += static_cast<std::size_t>(TitleNormalizer::clean(t).size());
                           }) /
        static_cast<double>(titles.size());
    bench::report("clean, 10 000 varied titles, per title", perTitle, "ns");

    const QString sixty = QStringLiteral("● Holiday catalogue final v3 (Layer 2, RGB/8) — 3000 × 2000");
    const double perSixty =
        bench::medianNanos(9,
                           [&] {
                               for (int i = 0; i < 10000; ++i)
                                   sink += static_cast<std::size_t>(TitleNormalizer::clean(sixty).size());
                           }) /
        10000;
    bench::report("clean, 60-char title", perSixty, "ns", "< 5000 ns");

    const QStringList ids{QStringLiteral("com.adobe.Photoshop"), QStringLiteral("org.mozilla.firefox"),
                          QStringLiteral("com.tinyspeck.slackmacgap"), QStringLiteral("org.gnome.Nautilus")};
    const double perCategory = bench::medianNanos(9,
                                                  [&] {
                                                      for (int i = 0; i < 40000; ++i)
                                                          sink += static_cast<std::size_t>(
                                                              Classifier::category(ids[i % ids.size()]));
                                                  }) /
                               40000;
    bench::report("category, per call", perCategory, "ns", "< 1000 ns");

    ProcessCPU cpu(makeCpuTimeSource());
    const SystemClock clock;
    const pid_t self = getpid();
    const double perPercent =
        bench::medianNanos(9,
                           [&] {
                               for (int i = 0; i < 1000; ++i)
                                   sink += static_cast<std::size_t>(cpu.percent(self, clock.now()));
                           }) /
        1000;
    bench::report("percent, live pid, per call", perPercent, "ns", "< 20000 ns");

    return sink == 42 ? 1 : 0;
}
