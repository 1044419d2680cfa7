#pragma once

#include <QHostAddress>
#include <QObject>
#include <memory>

#include "RefDatabase.h"
#include "ServerOptions.h"

class QHttpServer;
class QHttpServerRequest;
class QHttpServerResponse;

namespace corvi::refserver {

// The reference Corvimetry server: sign-in, enrollment, identity, session ingest and a status
// page, over HTTP, backed by its own SQLite file. Lives on the thread that creates it.
class RefServer : public QObject {
    Q_OBJECT
  public:
    explicit RefServer(const ServerOptions& options, QObject* parent = nullptr);
    ~RefServer() override;

    // False (with error()) when the database or the configured users could not be set up.
    bool ok() const { return error_.isEmpty(); }
    QString error() const { return error_; }

    // Answers the port listened on, 0 on failure (also when the TLS files cannot be read).
    quint16 listen(const QHostAddress& address, quint16 port);
    quint16 port() const { return port_; }
    bool tls() const { return !options_.tlsCert.isEmpty(); }

    RefDatabase& database() { return db_; }

  private:
    QHttpServerResponse login(const QHttpServerRequest& request);
    QHttpServerResponse enrollSelf(const QHttpServerRequest& request);
    QHttpServerResponse me(const QHttpServerRequest& request);
    QHttpServerResponse ingest(const QHttpServerRequest& request);
    QHttpServerResponse dashboard();
    QHttpServerResponse updateFile(const QString& name);
    std::optional<MachineIdentity> machineFor(const QHttpServerRequest& request);
    void setUp();

    ServerOptions options_;
    RefDatabase db_;
    std::unique_ptr<QHttpServer> http_;
    QString error_;
    quint16 port_ = 0;
};

}  // namespace corvi::refserver
