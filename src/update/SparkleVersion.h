#pragma once

#include <QString>

namespace corvi {

// Orders version texts the way Sparkle does: the texts are cut into runs of digits, runs of
// other characters and single periods; digit runs compare as numbers, letter runs as text,
// a number is newer than letters at the same place ("1.0" > "1.0b"), and trailing ".0"
// parts change nothing ("1.0" == "1.0.0"). Answers <0, 0 or >0 as a is older, equal, newer.
int compareVersions(const QString& a, const QString& b);

}  // namespace corvi
