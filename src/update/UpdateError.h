#pragma once

#include <QString>

namespace corvi {

// Why an update check or install ended without installing, told to the person (Portuguese
// or English) and to the log (Portuguese).
struct UpdateError {
    enum class Kind {
        notConfigured,    // no feed address or no valid public key in this build
        insecureFeed,     // not https in an installed program
        feedUnreachable,  // transport failure, timeout or a status other than 200
        feedMalformed,
        insecurePackage,
        downloadFailed,
        wrongLength,
        badSignature,
        installerMissing,
        installFailed,
    };
    Kind kind;
    QString detail;  // the transport's or the installer's own words, may be empty

    QString text(bool pt) const;
    // "CorviAgent atualização falhou: …"
    QString logLine() const;
};

}  // namespace corvi
