#pragma once

#include <QString>
#include <QStringView>
#include <optional>

namespace corvi {

// The raw strings are what the database stores and the server receives.
enum class AppCategory { work, communication, browser, other };
enum class ActivityState { working, rendering, communication, offtask, idle, locked };

QString rawValue(AppCategory category);
QString rawValue(ActivityState state);

// Only an exact (case-sensitive) raw string gives a value.
std::optional<AppCategory> appCategoryFromRaw(QStringView raw);
std::optional<ActivityState> activityStateFromRaw(QStringView raw);

}  // namespace corvi
