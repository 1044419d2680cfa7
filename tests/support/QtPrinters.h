#pragma once

#include <QString>
#include <ostream>

// Readable QString values in test failures.
inline void PrintTo(const QString& text, std::ostream* os) {
    *os << '"' << text.toStdString() << '"';
}
