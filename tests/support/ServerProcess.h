#pragma once

#include <QProcess>
#include <QStringList>

#include "support/ChildProcess.h"
#include "support/HttpTestClient.h"

namespace corvi::test {

// The reference server program (CORVI_SERVER_BIN) with its database in `folder`, one user (Ana,
// ana@studio.example, password s3cret) and `args` (a passcode, updates, TLS); stopped with the
// object.
class ServerProcess {
  public:
    explicit ServerProcess(const QString& folder, const QStringList& args = {})
        : db_(folder + "/server.sqlite"),
          base_(startReferenceServer(
              process_, CORVI_SERVER_BIN,
              QStringList{"--db", db_, "--user", "ana@studio.example:s3cret:Ana Souza"} + args)) {}
    ~ServerProcess() { stop(process_, true); }
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    bool ok() const { return !base_.isEmpty(); }
    // "http://127.0.0.1:PORT", or https.
    QString base() const { return base_; }
    QString db() const { return db_; }

  private:
    QString db_;
    QProcess process_;
    QString base_;
};

}  // namespace corvi::test
