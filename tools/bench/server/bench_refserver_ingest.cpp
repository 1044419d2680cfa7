// Ingest throughput of the reference server (a separate process on loopback) under 20 agents
// uploading at once: each agent sends a fixed number of 500-session batches, one after another.
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QTemporaryDir>
#include <QTimer>
#include <cstdio>
#include <memory>
#include <vector>

#include "bench/BenchUtil.h"
#include "support/HttpTestClient.h"

namespace {

constexpr int agents = 20;
constexpr int batchesPerAgent = 5;
constexpr int batchSize = 500;

QByteArray post(QNetworkAccessManager& nam, const QString& url, const QByteArray& body,
                const QList<QPair<QByteArray, QByteArray>>& headers) {
    QNetworkRequest request{QUrl(url)};
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArray("application/json"));
    for (const auto& h : headers) request.setRawHeader(h.first, h.second);
    QNetworkReply* reply = nam.post(request, body);
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    loop.exec();
    reply->deleteLater();
    return reply->readAll();
}

QByteArray batch(int agent, int index) {
    QJsonArray sessions;
    for (int i = 0; i < batchSize; ++i) {
        const qint64 id = qint64(index) * batchSize + i + 1;
        const double start = 1700000000.0 + double(id) * 3.25 + agent;
        sessions.append(QJsonObject{{"client_id", id},
                                    {"start", start},
                                    {"end", start + 171.5},
                                    {"bundle_id", "org.inkscape.Inkscape"},
                                    {"app_name", "Inkscape"},
                                    {"window_title", QStringLiteral("catalogue page %1.svg").arg(i)},
                                    {"category", "work"},
                                    {"state", i % 7 ? "working" : "rendering"},
                                    {"avg_cpu", 23.75},
                                    {"max_cpu", 97.5},
                                    {"idle_at_end", 2.5},
                                    {"samples", 58}});
    }
    return QJsonDocument(QJsonObject{{"sessions", sessions}}).toJson(QJsonDocument::Compact);
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QTemporaryDir dir;
    QProcess server;
    const QString base = corvi::test::startReferenceServer(
        server, QStringLiteral(CORVI_SERVER_PROGRAM),
        {"--db", dir.filePath("bench.sqlite"), "--user", "bench@corvi.example:pw:Bench"});
    if (base.isEmpty()) {
        std::fprintf(stderr, "the reference server did not start\n");
        return 1;
    }

    QNetworkAccessManager setup;
    const QByteArray token =
        QJsonDocument::fromJson(
            post(setup, base + "/auth/login", R"({"email":"bench@corvi.example","password":"pw"})", {}))
            .object()
            .value("token")
            .toString()
            .toUtf8();
    std::vector<QByteArray> keys;
    std::vector<std::vector<QByteArray>> bodies(agents);
    for (int a = 0; a < agents; ++a) {
        const QByteArray enroll =
            QJsonDocument(QJsonObject{{"machine_uid", QStringLiteral("BENCH-%1").arg(a)},
                                      {"machine_name", QStringLiteral("bench %1").arg(a)}})
                .toJson(QJsonDocument::Compact);
        keys.push_back(
            QJsonDocument::fromJson(post(setup, base + "/v1/enroll-self", enroll, {{"X-Auth-Token", token}}))
                .object()
                .value("api_key")
                .toString()
                .toUtf8());
        for (int b = 0; b < batchesPerAgent; ++b) bodies[a].push_back(batch(a, b));
    }

    // Each agent has its own client and connection, as separate machines would.
    std::vector<std::unique_ptr<QNetworkAccessManager>> clients;
    int outstanding = agents;
    int failures = 0;
    QEventLoop loop;
    std::function<void(int, int)> send = [&](int a, int b) {
        QNetworkRequest request{QUrl(base + "/v1/ingest")};
        request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArray("application/json"));
        request.setRawHeader("Authorization", "Bearer " + keys[a]);
        QNetworkReply* reply = clients[a]->post(request, bodies[a][b]);
        QObject::connect(reply, &QNetworkReply::finished, [&, reply, a, b] {
            reply->deleteLater();
            if (reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt() != 200) ++failures;
            if (b + 1 < batchesPerAgent)
                send(a, b + 1);
            else if (--outstanding == 0)
                loop.quit();
        });
    };
    for (int a = 0; a < agents; ++a) clients.push_back(std::make_unique<QNetworkAccessManager>());
    QElapsedTimer clock;
    clock.start();
    for (int a = 0; a < agents; ++a) send(a, 0);
    QTimer::singleShot(120000, &loop, &QEventLoop::quit);
    loop.exec();
    const double seconds = double(clock.nsecsElapsed()) / 1e9;

    server.terminate();
    server.waitForFinished(5000);
    if (failures || outstanding) {
        std::fprintf(stderr, "%d requests failed, %d agents unfinished\n", failures, outstanding);
        return 1;
    }
    const double sessions = double(agents) * batchesPerAgent * batchSize;
    corvi::bench::report("refserver ingest, 20 agents x 5 x 500 sessions", sessions / seconds, "sess/s");
    corvi::bench::report("refserver ingest, batch latency seen by one agent",
                         seconds * 1000 / batchesPerAgent, "ms");
    return 0;
}
