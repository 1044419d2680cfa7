#pragma once

#include <QHash>
#include <QList>
#include <QString>
#include <QStringList>
#include <optional>

namespace corvi::refserver {

struct UserSpec {
    QString email;
    QString password;
    QString employeeName;
};

// Everything the server is started with, from the command line and an optional JSON file:
//   {"users": [{"email": "...", "password": "...", "employee_name": "..."}],
//    "passcode": "plain text", "machines": {"<machine uid>": "display name"}}
struct ServerOptions {
    QString listen = QStringLiteral("127.0.0.1");
    int port = 8787;
    QString dbPath = QStringLiteral("corvi-server.sqlite");
    QList<UserSpec> users;
    // Set: becomes the organisation's passcode (empty text removes it). Unset: the stored one stays.
    std::optional<QString> passcode;
    QHash<QString, QString> machineNames;
    int passwordIterations = 210000;
    int passcodeIterations = 100000;
    int tokenLifetimeSeconds = 600;
    // Set: DIR/appcast.xml and the packages beside it are served under /updates/.
    QString updatesDir;
    // Both set: HTTPS with this certificate and private key (PEM).
    QString tlsCert;
    QString tlsKey;

    // Answers none with a message for the person at the terminal.
    static std::optional<ServerOptions> fromArguments(const QStringList& arguments, QString* error);
    bool readFile(const QString& path, QString* error);
    // "email:password:Employee Name"; the password may itself hold colons.
    static std::optional<UserSpec> parseUser(const QString& text);
};

}  // namespace corvi::refserver
