#pragma once

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace corvi::test {

// Writes `bytes` to `path`, making its folder first; false when it cannot.
inline bool writeFile(const QString& path, const QByteArray& bytes) {
    QDir().mkpath(QFileInfo(path).path());
    QFile f(path);
    return f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(bytes) == bytes.size();
}

// The file's bytes; empty when it cannot be read.
inline QByteArray readFile(const QString& path) {
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// Sets an environment variable for its lifetime, then restores (or unsets) it.
class ScopedEnv {
  public:
    ScopedEnv(const char* name, const QByteArray& value) : name_(name), saved_(qgetenv(name)) {
        qputenv(name, value);
    }
    ~ScopedEnv() { saved_.isNull() ? qunsetenv(name_) : qputenv(name_, saved_); }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

  private:
    const char* name_;
    QByteArray saved_;
};

}  // namespace corvi::test
