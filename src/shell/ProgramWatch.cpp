#include "shell/ProgramWatch.h"

#include <sys/stat.h>

#include <QFile>
#include <QFileInfo>
#include <QFileSystemWatcher>
#include <QProcess>
#include <QRegularExpression>
#include <QTimer>

#include "platform/Log.h"

namespace corvi {
namespace {

bool onlyRootWrites(const struct stat& st) {
    return st.st_uid == 0 && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

}  // namespace

ProgramWatch::ProgramWatch(QString program, QObject* parent)
    : ProgramWatch(std::move(program), Timing{}, parent) {}

ProgramWatch::ProgramWatch(QString program, Timing timing, QObject* parent)
    : QObject(parent),
      program_(std::move(program)),
      timing_(timing),
      watcher_(new QFileSystemWatcher(this)),
      settle_(new QTimer(this)) {
    struct stat st {};
    if (::stat(QFile::encodeName(program_).constData(), &st) == 0) {
        device_ = st.st_dev;
        inode_ = st.st_ino;
    }
    settle_->setSingleShot(true);
    connect(settle_, &QTimer::timeout, this, &ProgramWatch::check);
    // dpkg writes the new file beside the old one and renames it over: the folder tells.
    watcher_->addPath(QFileInfo(program_).absolutePath());
    watcher_->addPath(program_);
    connect(watcher_, &QFileSystemWatcher::directoryChanged, this, &ProgramWatch::changed);
    connect(watcher_, &QFileSystemWatcher::fileChanged, this, &ProgramWatch::changed);
}

ProgramWatch::~ProgramWatch() {
    if (!probe_) return;
    probe_->kill();
    probe_->waitForFinished(1000);
}

void ProgramWatch::changed() {
    // A folder such as /usr/bin changes with every package: only our file's identity matters,
    // and only once the changes have stopped.
    tries_ = 0;
    settle_->start(timing_.settleMs);
}

void ProgramWatch::check() {
    if (!watcher_->files().contains(program_)) watcher_->addPath(program_);
    struct stat st {};
    if (::stat(QFile::encodeName(program_).constData(), &st) != 0) {
        if (!removedSaid_) emit removed();
        removedSaid_ = true;
        return;
    }
    removedSaid_ = false;
    if (st.st_dev == device_ && st.st_ino == inode_) return;
    struct stat folder {};
    if (!onlyRootWrites(st) ||
        ::stat(QFile::encodeName(QFileInfo(program_).absolutePath()).constData(), &folder) != 0 ||
        !onlyRootWrites(folder))
        return;
    ask();
}

void ProgramWatch::ask() {
    if (probe_) return;
    probe_ = new QProcess(this);
    probe_->setProgram(program_);
    probe_->setArguments({QStringLiteral("--version")});
    auto* deadline = new QTimer(probe_);
    deadline->setSingleShot(true);
    connect(deadline, &QTimer::timeout, probe_, &QProcess::kill);
    const auto done = [this] {
        const QString out = QString::fromUtf8(probe_->readAllStandardOutput());
        const bool ok = probe_->exitStatus() == QProcess::NormalExit && probe_->exitCode() == 0;
        probe_->deleteLater();
        probe_ = nullptr;
        const auto match = QRegularExpression(QStringLiteral("^CorviAgent (\\S+)")).match(out);
        if (ok && match.hasMatch()) return emit replaced(match.captured(1));
        if (++tries_ <= timing_.retries) return settle_->start(timing_.retryMs);
        Log::line(QStringLiteral("CorviAgent: a nova versão em %1 não inicia; este agente segue como está")
                      .arg(program_));
    };
    connect(probe_, &QProcess::finished, this, done);
    connect(probe_, &QProcess::errorOccurred, this, [this, done](QProcess::ProcessError e) {
        if (e == QProcess::FailedToStart) done();
    });
    probe_->start(QIODevice::ReadOnly);
    deadline->start(timing_.versionTimeoutMs);
}

}  // namespace corvi
