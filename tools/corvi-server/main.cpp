// corvi-server: the reference Corvimetry server, for trying the agent out and for its tests.
#include <QCoreApplication>
#include <QHostAddress>
#include <cstdio>

#include "RefServer.h"

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("corvi-server"));

    QString error;
    const auto options = corvi::refserver::ServerOptions::fromArguments(app.arguments(), &error);
    if (!options) {
        const bool help = error.startsWith(QLatin1String("Usage:"));
        std::fprintf(help ? stdout : stderr, "%s\n", qPrintable(error));
        return help ? 0 : 2;
    }
    QHostAddress address;
    if (!address.setAddress(options->listen)) {
        std::fprintf(stderr, "--listen needs an IP address, got %s\n", qPrintable(options->listen));
        return 2;
    }
    corvi::refserver::RefServer server(*options);
    if (!server.ok()) {
        std::fprintf(stderr, "%s\n", qPrintable(server.error()));
        return 1;
    }
    const quint16 port = server.listen(address, quint16(options->port));
    if (port == 0) {
        std::fprintf(stderr, "cannot listen on %s port %d%s\n", qPrintable(options->listen), options->port,
                     server.tls() ? " (or cannot read the TLS certificate and key)" : "");
        return 1;
    }
    const QString host = address.protocol() == QAbstractSocket::IPv6Protocol
                             ? QStringLiteral("[%1]").arg(address.toString())
                             : address.toString();
    std::printf("listening on %s://%s:%u\n", server.tls() ? "https" : "http", qPrintable(host),
                unsigned(port));
    std::fflush(stdout);
    return app.exec();
}
