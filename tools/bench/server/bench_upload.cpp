// The agent's upload: building and serializing a 500-session body, and a full upload tick
// (fetch, body, POST, answer, mark) against the reference server program on loopback.
#include <QCoreApplication>
#include <QEventLoop>
#include <QProcess>
#include <QTemporaryDir>
#include <cstdio>

#include "bench/BenchUtil.h"
#include "model/AppModel.h"
#include "server/Syncer.h"
#include "store/Store.h"
#include "support/HttpTestClient.h"

namespace {

corvi::SessionRow row(int i, std::int64_t samples) {
    corvi::SessionRow r;
    r.startTS = 1700000000.0 + i * 37.123456789;
    r.endTS = r.startTS + 3.0 * double(samples);
    r.bundleID = QStringLiteral("com.adobe.Photoshop");
    r.appName = QStringLiteral("Adobe Photoshop 2025");
    r.windowTitle = QStringLiteral("Catálogo primavera %1 @ 66,7% (RGB/8)").arg(i);
    r.category = corvi::AppCategory::work;
    r.state = i % 5 ? corvi::ActivityState::working : corvi::ActivityState::rendering;
    r.sumCPU = 37.5 * double(samples);
    r.maxCPU = 143.25;
    r.samples = samples;
    r.idleAtEnd = 0.75;
    return r;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QTemporaryDir dir;
    corvi::Store store(dir.filePath("corvi.sqlite"));
    std::vector<std::int64_t> ids;
    for (int i = 0; i < corvi::Syncer::batchSize; ++i) ids.push_back(store.openSession(row(i, 12)));

    const std::vector<corvi::Unsynced> batch = store.fetchUnsynced(corvi::Syncer::batchSize);
    std::size_t bytes = 0;
    const double bodyNs = corvi::bench::medianNanos(200, [&] { bytes = corvi::Syncer::body(batch).size(); });
    corvi::bench::report("upload body, 500 sessions (build + serialize)", bodyNs / 1e6, "ms", "< 5 ms");
    corvi::bench::report("upload body size, 500 sessions", double(bytes) / 1024.0, "KiB");

    QProcess server;
    const QString base = corvi::test::startReferenceServer(
        server, QStringLiteral(CORVI_SERVER_PROGRAM),
        {"--db", dir.filePath("server.sqlite"), "--user", "bench@corvi.example:pw:Bench"});
    if (base.isEmpty()) {
        std::fprintf(stderr, "the reference server did not start\n");
        return 1;
    }

    corvi::AppModel model(dir.filePath("config.json"));
    bool signedIn = false, finished = false;
    model.loginAndEnroll(base, "bench@corvi.example", "pw", [&](bool ok, std::optional<QString>) {
        signedIn = ok;
        finished = true;
    });
    while (!finished) QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    if (!signedIn) {
        std::fprintf(stderr, "sign-in at the reference server failed\n");
        return 1;
    }

    corvi::Syncer syncer(store, model, 60);
    std::int64_t grow = 13;
    bool allAccepted = true;
    const double tickNs = corvi::bench::medianNanos(15, [&] {
        syncer.tick();
        while (syncer.inFlight()) QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        allAccepted = allAccepted && model.lastSyncOK() && model.pending() == 0;
        // Outside what matters but inside the timing: the sessions grow, so the next tick resends.
        ++grow;
        for (std::size_t i = 0; i < ids.size(); ++i) store.updateSession(ids[i], row(int(i), grow));
    });
    // The rewrite of 500 rows alone, to subtract.
    const double rewriteNs = corvi::bench::medianNanos(15, [&] {
        ++grow;
        for (std::size_t i = 0; i < ids.size(); ++i) store.updateSession(ids[i], row(int(i), grow));
    });
    server.terminate();
    server.waitForFinished(5000);
    if (!allAccepted) {
        std::fprintf(stderr, "an upload was not accepted\n");
        return 1;
    }
    corvi::bench::report("upload tick, 500 sessions, loopback reference server", (tickNs - rewriteNs) / 1e6,
                         "ms");
    return 0;
}
