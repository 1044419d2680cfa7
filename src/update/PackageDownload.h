#pragma once

#include <QFile>
#include <QObject>
#include <QTemporaryDir>
#include <functional>
#include <memory>
#include <optional>

#include "update/Appcast.h"
#include "update/UpdateError.h"

namespace corvi {

// Fetches one item's package into a private temporary folder (0700, the file 0600), never
// taking more bytes than announced, and keeps it only when its length and its Ed25519
// signature check out. The folder and the file go with this object.
class PackageDownload : public QObject {
    Q_OBJECT
  public:
    // The error is none when the file at path() is the exact signed package.
    using Done = std::function<void(std::optional<UpdateError>)>;

    explicit PackageDownload(QObject* parent = nullptr);
    ~PackageDownload() override;

    void start(const AppcastItem& item, const QByteArray& publicKey, int timeoutMs, Done done);
    QString path() const { return path_; }

  private:
    void finish(std::optional<UpdateError> error);

    std::unique_ptr<QTemporaryDir> dir_;
    QFile file_;
    QString path_;
    Done done_;
};

}  // namespace corvi
