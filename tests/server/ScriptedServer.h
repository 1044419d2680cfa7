#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QPair>
#include <QTcpServer>
#include <QTcpSocket>

namespace corvi::test {

// How the scripted server answers one path.
struct Script {
    enum class Mode { answer, silent, hugeWithLength, hugeWithoutLength, closeAtOnce };
    int status = 200;
    QByteArray body;
    Mode mode = Mode::answer;
    QList<QPair<QByteArray, QByteArray>> headers;

    static Script json(int status, const QByteArray& body) {
        return {status, body, Mode::answer, {{"Content-Type", "application/json"}}};
    }
};

struct ReceivedRequest {
    QByteArray method;
    QByteArray path;
    QList<QPair<QByteArray, QByteArray>> headers;  // in the order received
    QByteArray body;
    QByteArray header(const QByteArray& name) const {
        for (const auto& h : headers)
            if (h.first.compare(name, Qt::CaseInsensitive) == 0) return h.second;
        return {};
    }
};

// A raw HTTP/1.1 server on loopback that answers each path as scripted (404 for others)
// and records what it received. Misbehaves on request: stays silent, sends 10 MB, hangs up.
class ScriptedServer : public QTcpServer {
  public:
    static constexpr qint64 hugeSize = 10 * 1024 * 1024;

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

    QList<ReceivedRequest> received;

  private:
    void onData(QTcpSocket* s) {
        QByteArray& buffer = buffers_[s];
        buffer += s->readAll();
        const qsizetype end = buffer.indexOf("\r\n\r\n");
        if (end < 0) return;
        ReceivedRequest r;
        const QList<QByteArray> lines = buffer.left(end).split('\n');
        const QList<QByteArray> first = lines.value(0).trimmed().split(' ');
        r.method = first.value(0);
        r.path = first.value(1);
        qsizetype length = 0;
        for (qsizetype i = 1; i < lines.size(); ++i) {
            const QByteArray line = lines[i].trimmed();
            const qsizetype colon = line.indexOf(':');
            if (colon <= 0) continue;
            r.headers.append({line.left(colon).trimmed(), line.mid(colon + 1).trimmed()});
            if (r.headers.last().first.compare("Content-Length", Qt::CaseInsensitive) == 0)
                length = r.headers.last().second.toLongLong();
        }
        if (buffer.size() < end + 4 + length) return;
        r.body = buffer.mid(end + 4, length);
        buffer.remove(0, end + 4 + length);
        received.append(r);
        respond(s, scripts_.value(r.path, Script{404, "{}", Script::Mode::answer, {}}));
    }

    static void respond(QTcpSocket* s, const Script& script) {
        using Mode = Script::Mode;
        if (script.mode == Mode::silent) return;
        if (script.mode == Mode::closeAtOnce) {
            s->disconnectFromHost();
            return;
        }
        QByteArray head =
            "HTTP/1.1 " + QByteArray::number(script.status) + " Scripted\r\nConnection: close\r\n";
        for (const auto& h : script.headers) head += h.first + ": " + h.second + "\r\n";
        QByteArray body = script.body;
        if (script.mode == Mode::hugeWithLength || script.mode == Mode::hugeWithoutLength)
            body = "{\"token\":\"" + QByteArray(hugeSize, 'x') + "\"}";
        if (script.mode != Mode::hugeWithoutLength)
            head += "Content-Length: " + QByteArray::number(body.size()) + "\r\n";
        s->write(head + "\r\n" + body);
        s->disconnectFromHost();
    }

    QHash<QByteArray, Script> scripts_;
    QHash<QTcpSocket*, QByteArray> buffers_;
};

}  // namespace corvi::test
