#pragma once

#include <QString>
#include <QStringList>

namespace corvi {

// A stable identifier of this machine for enrollment that does not reveal the machine id
// itself: HMAC-SHA-256 keyed with the machine id's 16 bytes over the application id, made a
// version-4 UUID in upper case. The same for every user and across restarts; "unknown-mac"
// when no machine id can be read.
QString machineUID();
// The same from the given files, first readable and well-formed one wins.
QString machineUIDFrom(const QStringList& machineIdFiles);

// The name people gave this computer, else its host name.
QString machineName();
// PRETTY_HOSTNAME of a machine-info file (systemd's /etc/machine-info: shell-style KEY=VALUE
// lines); empty when it has none.
QString prettyHostnameIn(const QString& machineInfoFile);

}  // namespace corvi
