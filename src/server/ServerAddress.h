#pragma once

#include <QString>
#include <QUrl>
#include <optional>

namespace corvi {

// The server base address: blanks (spaces and tabs, not line breaks) trimmed at both ends,
// then one trailing "/" removed.
QString normalizedBase(const QString& serverURL);

// Why an address is not used.
enum class AddressFault {
    malformed,  // not a strict http(s) URL with a host and no blank
    cleartext,  // http to a host other than this computer
};

// base + path as a URL the agent will talk to: it parses strictly, names a host, has no blank
// anywhere, and is https, or http to this computer only (localhost, 127.0.0.0/8, ::1): the
// API key and the window titles never cross a network in the clear. None otherwise, with the
// reason in `fault` when given.
std::optional<QUrl> endpointUrl(const QString& base, const QString& path, AddressFault* fault = nullptr);

// Whether a value from the server or the configuration file may go into a request header:
// a control character (CR, LF, NUL, …) would let it end the header and add others.
bool isHeaderSafe(const QString& value);

}  // namespace corvi
