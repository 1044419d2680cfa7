#pragma once

#include <QByteArray>
#include <QString>
#include <optional>

namespace corvi {

// Reading and replacing a small private file.
namespace configfile {

// The one size rule for both directions: larger files are refused unread, and the model never
// writes one. It fits what the agent can be handed: the API key and the passcode record each
// come in a server answer of at most 1 MiB.
inline constexpr qint64 maxBytes = 4 * 1024 * 1024;

// The whole content of a regular file of at most maxBytes; none otherwise (missing, not a
// regular file, too large, unreadable). Never blocks on a FIFO or a device.
std::optional<QByteArray> read(const QString& path);

// Writes `data` to a new file (mode 0600 from its creation) in the same folder, flushes it to
// disk and renames it over `path`. On any failure the old file is untouched and the temporary
// file is removed.
bool replaceAtomically(const QString& path, const QByteArray& data);

}  // namespace configfile
}  // namespace corvi
