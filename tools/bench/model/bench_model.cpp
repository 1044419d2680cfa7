// The passcode check at a realistic round count, and the configuration file's load and save.
#include <openssl/evp.h>

#include <QCoreApplication>
#include <QTemporaryDir>

#include "BenchUtil.h"
#include "model/AppModel.h"

using namespace corvi;

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);

    const QByteArray salt = "0123456789abcdef";
    QByteArray hash(32, '\0');
    PKCS5_PBKDF2_HMAC("correct horse", 13, reinterpret_cast<const unsigned char*>(salt.constData()),
                      static_cast<int>(salt.size()), 100000, EVP_sha256(), 32,
                      reinterpret_cast<unsigned char*>(hash.data()));
    const Passcode record{QString::fromLatin1(salt.toBase64()), QString::fromLatin1(hash.toBase64()), 100000};
    bool ok = false;
    const double confere =
        bench::medianNanos(9, [&] { ok = record.confere(QStringLiteral("correct horse")); });
    bench::report("confere, 100 000 rounds", confere / 1e6, "ms", "well under 1 s, the prompt waits on it");
    if (!ok) return 1;

    QTemporaryDir dir;
    AppModel model(dir.filePath(QStringLiteral("config.json")));
    model.setServerURL(QStringLiteral("https://corvimetry.example.com"));
    model.setApiKey(QString(64, u'k'));
    model.setPasscode(record);
    model.save();
    const double save = bench::medianNanos(200, [&] { model.save(); });
    bench::report("save (atomic, fsynced)", save / 1e3, "us");
    const double load = bench::medianNanos(2000, [&] { model.load(); });
    bench::report("load", load / 1e3, "us");
    return 0;
}
