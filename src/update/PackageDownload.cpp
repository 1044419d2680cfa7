#include "update/PackageDownload.h"

#include <QFileInfo>
#include <QNetworkRequest>

#include <utility>

#include "server/HttpClient.h"
#include "update/PackageSignature.h"

namespace corvi {

PackageDownload::PackageDownload(QObject* parent) : QObject(parent) {}

PackageDownload::~PackageDownload() {
    file_.close();
    if (!path_.isEmpty()) QFile::remove(path_);
}

void PackageDownload::start(const AppcastItem& item, const QByteArray& publicKey, int timeoutMs, Done done) {
    done_ = std::move(done);
    dir_ = std::make_unique<QTemporaryDir>(QDir::tempPath() + QStringLiteral("/corviagent-update-XXXXXX"));
    // The package's own name, so the installer's messages name it; never a path from the feed.
    QString name = QFileInfo(item.url.path()).fileName();
    if (name.isEmpty() || name.startsWith(u'.')) name = QStringLiteral("package");
    path_ = dir_->isValid() ? dir_->filePath(name) : QString();
    file_.setFileName(path_);
    if (path_.isEmpty() || !file_.open(QIODevice::WriteOnly | QIODevice::NewOnly,
                                       QFileDevice::ReadOwner | QFileDevice::WriteOwner)) {
        path_.clear();
        return finish(UpdateError{UpdateError::Kind::downloadFailed, file_.errorString()});
    }
    const QByteArray key = publicKey;
    const AppcastItem wanted = item;
    QNetworkRequest request(item.url);
    HttpClient::shared().get(
        request, timeoutMs, item.length, &file_, this, [this, key, wanted](const HttpResult& r) {
            file_.close();
            if (r.tooLarge) return finish(UpdateError{UpdateError::Kind::wrongLength, {}});
            if (r.status != 200)
                return finish(
                    UpdateError{UpdateError::Kind::downloadFailed,
                                r.status < 0 ? r.transportError : QStringLiteral("HTTP %1").arg(r.status)});
            if (QFileInfo(path_).size() != wanted.length)
                return finish(UpdateError{UpdateError::Kind::wrongLength, {}});
            if (!PackageSignature::verifyFile(path_, key, wanted.signature))
                return finish(UpdateError{UpdateError::Kind::badSignature, {}});
            finish(std::nullopt);
        });
}

void PackageDownload::finish(std::optional<UpdateError> error) {
    if (error && !path_.isEmpty()) {
        file_.close();
        QFile::remove(path_);
        path_.clear();
    }
    if (Done done = std::exchange(done_, nullptr)) done(error);
}

}  // namespace corvi
