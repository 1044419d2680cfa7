#pragma once

#include <QString>
#include <QUrl>
#include <optional>

namespace corvi {

// The server base address: blanks (spaces and tabs, not line breaks) trimmed at both ends,
// then one trailing "/" removed.
QString normalizedBase(const QString& serverURL);

// base + path as a URL the agent will talk to: it parses strictly, is http or https, names a
// host and has no blank anywhere. None otherwise.
std::optional<QUrl> endpointUrl(const QString& base, const QString& path);

// Whether a value from the server or the configuration file may go into a request header:
// a control character (CR, LF, NUL, …) would let it end the header and add others.
bool isHeaderSafe(const QString& value);

}  // namespace corvi
