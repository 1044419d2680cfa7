#include "ServerOptions.h"

#include <QCommandLineParser>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace corvi::refserver {

std::optional<UserSpec> ServerOptions::parseUser(const QString& text) {
    const int first = text.indexOf(QLatin1Char(':'));
    const int last = text.lastIndexOf(QLatin1Char(':'));
    if (first <= 0 || last == first) return std::nullopt;
    UserSpec u{text.left(first), text.mid(first + 1, last - first - 1), text.mid(last + 1).trimmed()};
    if (u.password.isEmpty() || u.employeeName.isEmpty()) return std::nullopt;
    return u;
}

bool ServerOptions::readFile(const QString& path, QString* error) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read %1: %2").arg(path, file.errorString());
        return false;
    }
    QJsonParseError parseError;
    const QJsonDocument doc = QJsonDocument::fromJson(file.readAll(), &parseError);
    if (!doc.isObject()) {
        *error = QStringLiteral("%1 is not a JSON object (%2)").arg(path, parseError.errorString());
        return false;
    }
    const QJsonObject top = doc.object();
    const QJsonArray list = top.value(QLatin1String("users")).toArray();
    for (int i = 0; i < list.size(); ++i) {
        const QJsonObject o = list.at(i).toObject();
        UserSpec u{o.value(QLatin1String("email")).toString(), o.value(QLatin1String("password")).toString(),
                   o.value(QLatin1String("employee_name")).toString()};
        if (u.email.isEmpty() || u.password.isEmpty() || u.employeeName.isEmpty()) {
            *error = QStringLiteral("%1: users[%2] needs email, password and employee_name").arg(path).arg(i);
            return false;
        }
        users.append(u);
    }
    if (top.value(QLatin1String("passcode")).isString())
        passcode = top.value(QLatin1String("passcode")).toString();
    const QJsonObject names = top.value(QLatin1String("machines")).toObject();
    for (auto it = names.begin(); it != names.end(); ++it)
        if (it.value().isString()) machineNames.insert(it.key(), it.value().toString());
    return true;
}

std::optional<ServerOptions> ServerOptions::fromArguments(const QStringList& arguments, QString* error) {
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Corvimetry reference server"));
    parser.addHelpOption();
    const QCommandLineOption listen(QStringLiteral("listen"), QStringLiteral("Address to listen on."),
                                    QStringLiteral("address"), QStringLiteral("127.0.0.1"));
    const QCommandLineOption port(QStringLiteral("port"), QStringLiteral("Port; 0 picks a free one."),
                                  QStringLiteral("N"), QStringLiteral("8787"));
    const QCommandLineOption db(QStringLiteral("db"), QStringLiteral("SQLite file."), QStringLiteral("path"),
                                QStringLiteral("corvi-server.sqlite"));
    const QCommandLineOption users(QStringLiteral("users"), QStringLiteral("JSON file with users."),
                                   QStringLiteral("file.json"));
    const QCommandLineOption user(QStringLiteral("user"), QStringLiteral("A user (repeatable)."),
                                  QStringLiteral("email:password:Employee Name"));
    const QCommandLineOption passcode(QStringLiteral("passcode"),
                                      QStringLiteral("The organisation's passcode; empty removes it."),
                                      QStringLiteral("text"));
    const QCommandLineOption updates(
        QStringLiteral("updates"),
        QStringLiteral("Serve DIR/appcast.xml and the packages in DIR under /updates/."),
        QStringLiteral("DIR"));
    const QCommandLineOption tlsCert(QStringLiteral("tls-cert"),
                                     QStringLiteral("Serve HTTPS with this certificate (PEM)."),
                                     QStringLiteral("FILE"));
    const QCommandLineOption tlsKey(QStringLiteral("tls-key"),
                                    QStringLiteral("The certificate's private key (PEM)."),
                                    QStringLiteral("FILE"));
    parser.addOptions({listen, port, db, users, user, passcode, updates, tlsCert, tlsKey});
    if (!parser.parse(arguments)) {
        *error = parser.errorText();
        return std::nullopt;
    }
    if (parser.isSet(QStringLiteral("help"))) {
        *error = parser.helpText();
        return std::nullopt;
    }

    ServerOptions o;
    o.listen = parser.value(listen);
    bool ok = false;
    o.port = parser.value(port).toInt(&ok);
    if (!ok || o.port < 0 || o.port > 65535) {
        *error = QStringLiteral("--port needs a number from 0 to 65535");
        return std::nullopt;
    }
    o.dbPath = parser.value(db);
    if (parser.isSet(users) && !o.readFile(parser.value(users), error)) return std::nullopt;
    for (const QString& text : parser.values(user)) {
        const auto u = parseUser(text);
        if (!u) {
            *error = QStringLiteral("--user needs email:password:Employee Name");
            return std::nullopt;
        }
        o.users.append(*u);
    }
    if (parser.isSet(passcode)) o.passcode = parser.value(passcode);
    o.updatesDir = parser.value(updates);
    o.tlsCert = parser.value(tlsCert);
    o.tlsKey = parser.value(tlsKey);
    if (o.tlsCert.isEmpty() != o.tlsKey.isEmpty()) {
        *error = QStringLiteral("--tls-cert and --tls-key go together");
        return std::nullopt;
    }
    return o;
}

}  // namespace corvi::refserver
