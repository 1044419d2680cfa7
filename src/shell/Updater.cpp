#include "shell/Updater.h"

#include <QDateTime>

#include <QNetworkRequest>
#include <QSettings>
#include <QStandardPaths>
#include <QTimer>
#include <algorithm>

#include "BuildConfig.h"
#include "model/AppModel.h"
#include "platform/Log.h"
#include "server/HttpClient.h"
#include "ui/UpdateDialog.h"
#include "update/PackageDownload.h"
#include "update/PackageKitInstaller.h"
#include "update/PackageSignature.h"

namespace corvi {
namespace {

const QString lastCheckKey = QStringLiteral("Updates/LastCheck");
const QString skippedKey = QStringLiteral("Updates/SkippedVersion");

qint64 now() {
    return QDateTime::currentSecsSinceEpoch();
}

}  // namespace

UpdaterSettings UpdaterSettings::fromBuild(bool installed) {
    UpdaterSettings s;
    s.feed = QString::fromUtf8(build::updateFeed);
    s.publicKey = PackageSignature::publicKeyFromBase64(QString::fromUtf8(build::updateKey));
    s.runningVersion = AppModel::versaoAgente();
    s.installed = installed;
    s.settingsFile = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
                     QStringLiteral("/CorviAgent/CorviAgent.conf");
    return s;
}

Updater::Updater(UpdaterSettings settings, const AppModel& model, QObject* parent)
    : QObject(parent), settings_(std::move(settings)), model_(model), timer_(new QTimer(this)) {
    timer_->setSingleShot(true);
    connect(timer_, &QTimer::timeout, this, &Updater::scheduledCheck);
    if (!settings_.installed || settings_.feed.isEmpty() || settings_.publicKey.size() != 32) return;
    // At launch, unless the last check is less than an hour old.
    const qint64 last =
        QSettings(settings_.settingsFile, QSettings::IniFormat).value(lastCheckKey).toLongLong();
    armTimer(last + minimumIntervalSeconds - now());
}

Updater::~Updater() {
    if (dialog_) delete dialog_.data();
}

int Updater::nextCheckInMs() const {
    return timer_->isActive() ? timer_->remainingTime() : -1;
}

bool Updater::pt() const {
    return model_.lang() == u"pt";
}

void Updater::armTimer(qint64 seconds) {
    timer_->start(int(std::clamp<qint64>(seconds, 0, checkIntervalSeconds) * 1000));
}

void Updater::report(std::optional<QString> version) {
    QPointer<Updater> self(this);
    QTimer::singleShot(0, this, [self, version] {
        if (self && self->onUpdateAvailable) self->onUpdateAvailable(version);
    });
}

void Updater::scheduledCheck() {
    // One session at a time: a find waiting for the person, or a window open, is left alone.
    if (announced_ || dialog_) return armTimer(checkIntervalSeconds);
    fetch([this](std::optional<UpdateError> error, std::optional<AppcastItem> item) {
        if (dialog_) return;
        if (error) Log::line(error->logLine());
        announced_ = item.has_value();
        report(item ? std::optional<QString>(item->displayVersion()) : std::nullopt);
    });
}

void Updater::fetch(Found found) {
    QSettings(settings_.settingsFile, QSettings::IniFormat).setValue(lastCheckKey, now());
    if (settings_.installed) armTimer(checkIntervalSeconds);

    const QUrl url(settings_.feed, QUrl::StrictMode);
    const auto secure = [this](const QUrl& u) {
        return u.scheme() == u"https" || (!settings_.installed && u.scheme() == u"http");
    };
    const auto later = [this, found](std::optional<UpdateError> e) {
        QTimer::singleShot(0, this, [found, e] { found(e, std::nullopt); });
    };
    if (settings_.feed.isEmpty() || settings_.publicKey.size() != 32 || !url.isValid())
        return later(UpdateError{UpdateError::Kind::notConfigured, {}});
    if (!secure(url)) return later(UpdateError{UpdateError::Kind::insecureFeed, {}});

    QNetworkRequest request(url);
    request.setRawHeader("X-Agent-Version", settings_.runningVersion.toUtf8());
    request.setRawHeader("X-Agent-Platform", agentPlatform);
    HttpClient::shared().get(
        request, settings_.feedTimeoutMs, HttpClient::maxBody, nullptr, this,
        [this, found, secure](const HttpResult& r) {
            using Kind = UpdateError::Kind;
            if (r.status != 200)
                return found(
                    UpdateError{Kind::feedUnreachable,
                                r.status < 0 ? r.transportError : QStringLiteral("HTTP %1").arg(r.status)},
                    std::nullopt);
            const auto items = Appcast::parse(r.body);
            if (!items) return found(UpdateError{Kind::feedMalformed, {}}, std::nullopt);
            const QString skipped =
                QSettings(settings_.settingsFile, QSettings::IniFormat).value(skippedKey).toString();
            const auto item = Appcast::newest(*items, settings_.runningVersion, skipped);
            if (item && !secure(item->url))
                return found(UpdateError{Kind::insecurePackage, {}}, std::nullopt);
            found(std::nullopt, item);
        });
}

void Updater::checkForUpdates() {
    if (dialog_) {
        dialog_->raise();
        dialog_->activateWindow();
        return;
    }
    announced_ = false;
    const int session = ++session_;
    dialog_ = new UpdateDialog(pt());
    connect(dialog_, &QDialog::finished, this, &Updater::endSession);
    dialog_->showChecking();
    dialog_->show();
    fetch([this, session](std::optional<UpdateError> error, std::optional<AppcastItem> item) {
        if (session != session_ || !dialog_) return;
        if (error) return fail(*error);
        if (item) return offer(*item);
        dialog_->showMessage(
            pt() ? QStringLiteral("Você já tem a versão mais recente (%1).").arg(settings_.runningVersion)
                 : QStringLiteral("You have the newest version (%1).").arg(settings_.runningVersion));
    });
}

void Updater::offer(const AppcastItem& item) {
    dialog_->showOffer(item.displayVersion(), settings_.runningVersion, item.notes);
    connect(dialog_, &UpdateDialog::installChosen, this, [this, item] { install(item); });
    connect(dialog_, &UpdateDialog::skipChosen, this, [this, item] {
        QSettings(settings_.settingsFile, QSettings::IniFormat).setValue(skippedKey, item.version);
        dialog_->accept();
    });
}

void Updater::install(const AppcastItem& item) {
    const bool p = pt();
    dialog_->showWorking(p ? QStringLiteral("Baixando a versão %1…").arg(item.displayVersion())
                           : QStringLiteral("Downloading version %1…").arg(item.displayVersion()));
    download_ = new PackageDownload(this);
    const int session = session_;
    download_->start(
        item, settings_.publicKey, settings_.downloadTimeoutMs, [this, item, session, p](auto error) {
            if (session != session_ || !dialog_) return;
            if (error) return fail(*error);
            dialog_->showWorking(p ? QStringLiteral("Instalando a versão %1…").arg(item.displayVersion())
                                   : QStringLiteral("Installing version %1…").arg(item.displayVersion()));
            installer_ = new PackageKitInstaller(settings_.systemBus, this);
            installer_->install(download_->path(), [this, item, session, p](auto error) {
                if (session != session_ || !dialog_) return;
                if (error) return fail(*error);
                Log::line(QStringLiteral("CorviAgent atualização instalada: versão ") +
                          item.displayVersion());
                dialog_->showMessage(
                    p ? QStringLiteral("A versão %1 foi instalada. O Corvimetry reinicia com ela em "
                                       "instantes.")
                            .arg(item.displayVersion())
                      : QStringLiteral(
                            "Version %1 is installed. Corvimetry restarts with it in a moment.")
                            .arg(item.displayVersion()));
            });
        });
}

void Updater::fail(const UpdateError& error) {
    Log::line(error.logLine());
    const bool p = pt();
    dialog_->showMessage(
        (p ? QStringLiteral("A atualização não foi feita: ") : QStringLiteral("No update was installed: ")) +
        error.text(p) + u'.');
}

void Updater::endSession() {
    ++session_;
    // The window cannot close while a step runs, so neither is on the stack here; the package
    // goes with its download.
    delete installer_;
    delete download_;
    installer_ = nullptr;
    download_ = nullptr;
    report(std::nullopt);
}

}  // namespace corvi
