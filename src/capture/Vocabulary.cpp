#include "capture/Vocabulary.h"

#include <array>

namespace corvi {
namespace {

constexpr std::array<const char16_t*, 4> categoryNames{u"work", u"communication", u"browser", u"other"};
constexpr std::array<const char16_t*, 6> stateNames{u"working", u"rendering", u"communication",
                                                    u"offtask", u"idle",      u"locked"};

template <typename Enum, std::size_t N>
std::optional<Enum> fromRaw(const std::array<const char16_t*, N>& names, QStringView raw) {
    for (std::size_t i = 0; i < N; ++i)
        if (raw == QStringView(names[i])) return static_cast<Enum>(i);
    return std::nullopt;
}

}  // namespace

QString rawValue(AppCategory category) {
    return QString::fromUtf16(categoryNames[static_cast<std::size_t>(category)]);
}

QString rawValue(ActivityState state) {
    return QString::fromUtf16(stateNames[static_cast<std::size_t>(state)]);
}

std::optional<AppCategory> appCategoryFromRaw(QStringView raw) {
    return fromRaw<AppCategory>(categoryNames, raw);
}

std::optional<ActivityState> activityStateFromRaw(QStringView raw) {
    return fromRaw<ActivityState>(stateNames, raw);
}

}  // namespace corvi
