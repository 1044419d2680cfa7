// The update check at launch against the reference server over HTTPS: the main thread's time
// (the event loop's share of the check), the bytes fetched, and the private memory the process
// holds more with an Updater that has checked than before it (TLS already in use, as it is by
// the time the agent checks).
#include <malloc.h>
#include <time.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QFile>
#include <QNetworkRequest>
#include <QProcess>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QTemporaryDir>

#include "bench/BenchUtil.h"
#include "model/AppModel.h"
#include "server/HttpClient.h"
#include "shell/Updater.h"
#include "support/EventLoop.h"
#include "support/HttpTestClient.h"

namespace {

double threadCpuMs() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) * 1e3 + double(t.tv_nsec) / 1e6;
}

// The process's private anonymous memory: what it costs the machine, leaving out the library
// pages first touched by the check, which are shared with every Qt program.
double anonKiB() {
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly)) return 0;
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith("RssAnon:")) return line.mid(8).trimmed().split(' ').value(0).toDouble();
    return 0;
}

bool openssl(const QStringList& args) {
    QProcess p;
    p.start(QStringLiteral("openssl"), args);
    return p.waitForFinished(20000) && p.exitCode() == 0;
}

}  // namespace

int main(int argc, char** argv) {
    using namespace corvi;
    QCoreApplication app(argc, argv);
    QTemporaryDir dir;
    const auto path = [&](const char* name) { return dir.filePath(QString::fromUtf8(name)); };
    if (!openssl({"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                  "-keyout", path("tls.key"), "-out", path("tls.crt"), "-days", "1", "-subj", "/CN=127.0.0.1",
                  "-addext", "subjectAltName=IP:127.0.0.1"})) {
        std::fprintf(stderr, "openssl could not make a certificate\n");
        return 1;
    }
    QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
    tls.addCaCertificates(QSslCertificate::fromPath(path("tls.crt")));
    QSslConfiguration::setDefaultConfiguration(tls);

    // A feed of a realistic size: ten releases with their notes.
    QByteArray feed =
        "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<rss version=\"2.0\" "
        "xmlns:sparkle=\"http://www.andymatuschak.org/xml-namespaces/sparkle\"><channel><title>Corvimetry</"
        "title>";
    const QString signature = QString::fromLatin1(QByteArray(64, 's').toBase64());
    for (int i = 0; i < 10; ++i)
        feed += QStringLiteral(
                    "<item><title>2.%1.0</title><sparkle:version>2.%1.0</sparkle:version>"
                    "<description><![CDATA[<ul><li>Faster uploads on slow links</li><li>Window titles "
                    "of sandboxed applications</li><li>Fixes</li></ul>]]></description>"
                    "<enclosure url=\"https://127.0.0.1/updates/corviagent_2.%1.0_amd64.deb\" "
                    "length=\"4200000\" type=\"application/vnd.debian.binary-package\" "
                    "sparkle:edSignature=\"%2\"/></item>")
                    .arg(i)
                    .arg(signature)
                    .toUtf8();
    feed += "</channel></rss>\n";
    QDir().mkpath(path("updates"));
    QFile out(path("updates/appcast.xml"));
    if (!out.open(QIODevice::WriteOnly) || out.write(feed) != feed.size()) return 1;
    out.close();

    QProcess server;
    const QString base =
        test::startReferenceServer(server, QStringLiteral(CORVI_SERVER_PROGRAM),
                                   {"--db", path("server.sqlite"), "--updates", path("updates"), "--tls-cert",
                                    path("tls.crt"), "--tls-key", path("tls.key")});
    if (base.isEmpty()) return 1;

    // The agent has made an HTTPS request before (its identity refresh): TLS is loaded already.
    bool warm = false;
    HttpClient::shared().send(QNetworkRequest(QUrl(base + QStringLiteral("/"))), "GET", {}, 10000, &app,
                              [&](const HttpResult&) { warm = true; });
    test::waitFor([&] { return warm; }, 10000);
    test::settle(200);
    malloc_trim(0);
    const double anonBefore = anonKiB();

    AppModel model(path("config.json"));
    UpdaterSettings settings;
    settings.feed = base + QStringLiteral("/updates/appcast.xml");
    settings.publicKey = QByteArray(32, 'k');
    settings.runningVersion = QStringLiteral("1.0");
    settings.installed = true;
    settings.settingsFile = path("CorviAgent.conf");
    auto updater = std::make_unique<Updater>(settings, model);
    std::optional<QString> found;
    bool reported = false;
    updater->onUpdateAvailable = [&](std::optional<QString> v) {
        found = v;
        reported = true;
    };
    const double cpuStart = threadCpuMs();
    test::waitFor([&] { return reported; }, 10000);
    const double cpu = threadCpuMs() - cpuStart;
    if (!found) {
        std::fprintf(stderr, "the check found nothing\n");
        return 1;
    }
    bench::report("launch check, main-thread time (HTTPS, 10 items)", cpu, "ms", "< 5 ms");
    bench::report("launch check, feed body fetched", double(feed.size()) / 1024.0, "KiB", "< 16 KiB");

    test::settle(200);
    malloc_trim(0);
    bench::report("idle memory added by an Updater after a check", anonKiB() - anonBefore, "KiB",
                  "< 200 KiB");
    updater.reset();
    server.kill();
    server.waitForFinished();
    return 0;
}
