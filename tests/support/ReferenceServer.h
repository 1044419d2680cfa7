#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>

#include "support/EventLoop.h"

namespace corvi::test {

// Starts the reference server program on a free loopback port with `args` and answers its
// base address ("http://127.0.0.1:PORT"); empty when it did not come up.
inline QString startReferenceServer(QProcess& server, const QString& program, const QStringList& args) {
    server.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    server.start(program, QStringList{"--port", "0"} + args);
    if (!waitFor([&] { return server.canReadLine(); }, 15000)) return {};
    const QString line = QString::fromUtf8(server.readLine()).trimmed();
    const QString prefix = "listening on ";
    return line.startsWith(prefix) ? line.mid(prefix.size()) : QString();
}

}  // namespace corvi::test
