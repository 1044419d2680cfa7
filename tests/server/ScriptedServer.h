#pragma once

#include <QHash>
#include <QTcpServer>
#include <QTcpSocket>

namespace corvi::test {

// How the scripted server answers one path.
struct Script {
    enum class Mode { answer, silent, hugeWithLength, hugeWithoutLength, closeAtOnce };
    int status = 200;
    QByteArray body;
    Mode mode = Mode::answer;
    QByteArray location;  // sent as "Location" when set

    static Script json(int status, const QByteArray& body) { return {status, body, Mode::answer, {}}; }
    static Script redirect(const QByteArray& to) { return {301, "{}", Mode::answer, to}; }
    static Script misbehave(Mode mode) { return {200, {}, mode, {}}; }
};

struct ReceivedRequest {
    QByteArray line;                        // method and path: "POST /auth/login"
    QHash<QByteArray, QByteArray> headers;  // names in lower case
    QByteArray body;
};

// A raw HTTP/1.1 server on loopback that answers each path as scripted (404 for others) and
// records what it received. Misbehaves on request: stays silent, sends 10 MB, hangs up.
class ScriptedServer : public QTcpServer {
  public:
    ScriptedServer() {
        connect(this, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket* s = nextPendingConnection()) {
                connect(s, &QTcpSocket::readyRead, this, [this, s] { onData(s); });
                connect(s, &QTcpSocket::disconnected, this, [this, s] {
                    buffers_.remove(s);
                    s->deleteLater();
                });
            }
        });
        listen(QHostAddress::LocalHost, 0);
    }

    QString base() const { return QStringLiteral("http://127.0.0.1:%1").arg(serverPort()); }
    void script(const QByteArray& path, const Script& s) { scripts_.insert(path, s); }

    // An address on a port nothing listens on.
    static QString downBase() {
        QTcpServer probe;
        probe.listen(QHostAddress::LocalHost, 0);
        return QStringLiteral("http://127.0.0.1:%1").arg(probe.serverPort());
    }

    QList<ReceivedRequest> received;

  private:
    void onData(QTcpSocket* s) {
        QByteArray& buffer = buffers_[s];
        buffer += s->readAll();
        const qsizetype end = buffer.indexOf("\r\n\r\n");
        if (end < 0) return;
        const QList<QByteArray> lines = buffer.left(end).split('\n');
        const QList<QByteArray> first = lines.value(0).split(' ');
        ReceivedRequest r{first.value(0) + ' ' + first.value(1), {}, {}};
        for (const QByteArray& line : lines.mid(1))
            if (const qsizetype colon = line.indexOf(':'); colon > 0)
                r.headers.insert(line.left(colon).trimmed().toLower(), line.mid(colon + 1).trimmed());
        const qsizetype length = r.headers.value("content-length").toLongLong();
        if (buffer.size() < end + 4 + length) return;
        r.body = buffer.mid(end + 4, length);
        buffer.remove(0, end + 4 + length);
        received.append(r);
        respond(s, scripts_.value(first.value(1), Script::json(404, "{}")));
    }

    static void respond(QTcpSocket* s, const Script& script) {
        using Mode = Script::Mode;
        if (script.mode == Mode::silent) return;
        if (script.mode != Mode::closeAtOnce) {
            QByteArray head = "HTTP/1.1 " + QByteArray::number(script.status) +
                              " Scripted\r\nConnection: close\r\nContent-Type: application/json\r\n";
            if (!script.location.isEmpty()) head += "Location: " + script.location + "\r\n";
            QByteArray body = script.body;
            if (script.mode != Mode::answer)
                body = "{\"token\":\"" + QByteArray(10 * 1024 * 1024, 'x') + "\"}";
            if (script.mode != Mode::hugeWithoutLength)
                head += "Content-Length: " + QByteArray::number(body.size()) + "\r\n";
            s->write(head + "\r\n" + body);
        }
        s->disconnectFromHost();
    }

    QHash<QByteArray, Script> scripts_;
    QHash<QTcpSocket*, QByteArray> buffers_;
};

}  // namespace corvi::test
