#include "update/UpdateError.h"

namespace corvi {

QString UpdateError::text(bool pt) const {
    QString t;
    switch (kind) {
        case Kind::notConfigured:
            t = pt ? QStringLiteral("esta versão do agente não tem endereço ou chave de atualização")
                   : QStringLiteral("this build of the agent has no update address or key");
            break;
        case Kind::insecureFeed:
            t = pt ? QStringLiteral("o endereço das atualizações não usa HTTPS")
                   : QStringLiteral("the update address does not use HTTPS");
            break;
        case Kind::feedUnreachable:
            t = pt ? QStringLiteral("não foi possível ler a lista de atualizações")
                   : QStringLiteral("the update list could not be read");
            break;
        case Kind::feedMalformed:
            t = pt ? QStringLiteral("a lista de atualizações é inválida")
                   : QStringLiteral("the update list is invalid");
            break;
        case Kind::insecurePackage:
            t = pt ? QStringLiteral("o endereço do pacote não usa HTTPS")
                   : QStringLiteral("the package address does not use HTTPS");
            break;
        case Kind::downloadFailed:
            t = pt ? QStringLiteral("não foi possível baixar o pacote")
                   : QStringLiteral("the package could not be downloaded");
            break;
        case Kind::wrongLength:
            t = pt ? QStringLiteral("o pacote não tem o tamanho anunciado")
                   : QStringLiteral("the package is not the announced size");
            break;
        case Kind::badSignature:
            t = pt ? QStringLiteral("a assinatura do pacote não confere")
                   : QStringLiteral("the package's signature does not verify");
            break;
        case Kind::installerMissing:
            t = pt ? QStringLiteral("o instalador de pacotes do sistema não está disponível")
                   : QStringLiteral("the system's package installer is not available");
            break;
        case Kind::installFailed:
            t = pt ? QStringLiteral("o instalador de pacotes do sistema recusou o pacote")
                   : QStringLiteral("the system's package installer refused the package");
            break;
    }
    return detail.isEmpty() ? t : t + QStringLiteral(" (") + detail + u')';
}

QString UpdateError::logLine() const {
    // PackageKit's details span lines; a log entry is one.
    return QStringLiteral("CorviAgent atualização falhou: ") + text(true).simplified();
}

}  // namespace corvi
