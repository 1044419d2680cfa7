#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMetaEnum>
#include <QTemporaryDir>
#include <csignal>
#include <cstring>

#include "model/AppModel.h"
#include "model/RecordingLoginItem.h"
#include "support/RecordingLog.h"
#include "support/TestFiles.h"

namespace corvi {
namespace {

using test::writeFile;
constexpr auto readAll = test::readFile;

// Everything in the folder but the configuration file itself (left-over temporary files).
QStringList strays(const QString& folder) {
    QStringList names = QDir(folder).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
    names.removeAll(QStringLiteral("config.json"));
    return names;
}

// What the file keeps, as "server|key|paused|language|launch|salt:hash:iterations".
QString persisted(const AppModel& m) {
    const auto p = m.passcode();
    return QStringList{m.serverURL(),
                       m.apiKey(),
                       QString::number(m.paused()),
                       m.language(),
                       QString::number(m.launchAtLogin()),
                       p ? QStringLiteral("%1:%2:%3").arg(p->salt, p->hash).arg(p->iterations) : QString()}
        .join(u'|');
}

class AppModelTest : public ::testing::Test {
  protected:
    QTemporaryDir dir;
    QString path() const { return dir.filePath(QStringLiteral("config.json")); }
};

// Every row starts from a model holding `before`; a file that cannot be read changes nothing,
// a key that is missing or of the wrong type takes its default, except the passcode, which
// only a valid record replaces.
TEST_F(AppModelTest, LoadTakesWhatTheFileHoldsAndDefaultsTheRest) {
    const char* before = "https://old|old-key|1|pt|0|b2xk:b2xk:7";
    const char* defaults = "||0|system|1|b2xk:b2xk:7";
    const QByteArray nested = QByteArray(100000, '[') + QByteArray(100000, ']');
    const QByteArray huge = "{\"server_url\": \"" + QByteArray(50 * 1024 * 1024, 'a') + "\"}";
    struct Case {
        const char* row;
        std::optional<QByteArray> content;  // none: no file
        const char* expected;
    };
    const Case cases[] = {
        {"no file", std::nullopt, before},
        {"empty file", QByteArray(), before},
        {"not json", "server_url = x", before},
        {"top-level array", R"([{"server_url": "x"}])", before},
        {"truncated object", R"({"server_url": "x", )", before},
        {"invalid utf-8", "{\"server_url\": \"a\xff\xfe\"}", before},
        {"deeply nested arrays", "{\"x\": " + nested + "}", before},
        {"50 MB of json", huge, before},
        {"2 MB of valid json", R"({"paused": true})" + QByteArray(2'000'000, ' '),
         "||1|system|1|b2xk:b2xk:7"},
        {"empty object", "{}", defaults},
        {"all keys",
         R"({"server_url": "https://s", "api_key": "k", "paused": true, "language": "en", "launch_at_login": false,
             "passcode": {"salt": "c2FsdA==", "hash": "aGFzaA==", "iterations": 4096}})",
         "https://s|k|1|en|0|c2FsdA==:aGFzaA==:4096"},
        {"wrong types take defaults",
         R"({"server_url": 5, "api_key": null, "paused": 1, "language": false, "launch_at_login": "no"})",
         defaults},
        {"unknown language kept as written", R"({"language": "fr"})", "||0|fr|1|b2xk:b2xk:7"},
        {"duplicate keys: the last wins", R"({"api_key": "first", "api_key": "second"})",
         "|second|0|system|1|b2xk:b2xk:7"},
        {"iterations whole double", R"({"passcode": {"salt": "s", "hash": "h", "iterations": 4096.0}})",
         "||0|system|1|s:h:4096"},
        {"iterations negative", R"({"passcode": {"salt": "s", "hash": "h", "iterations": -3}})",
         "||0|system|1|s:h:-3"},
        {"iterations 1.5", R"({"passcode": {"salt": "s", "hash": "h", "iterations": 1.5}})", defaults},
        {"iterations 1e30", R"({"passcode": {"salt": "s", "hash": "h", "iterations": 1e30}})", defaults},
        {"iterations as string", R"({"passcode": {"salt": "s", "hash": "h", "iterations": "4096"}})",
         defaults},
        {"iterations missing", R"({"passcode": {"salt": "s", "hash": "h"}})", defaults},
        {"salt not a string", R"({"passcode": {"salt": 1, "hash": "h", "iterations": 1}})", defaults},
        {"passcode an array", R"({"passcode": ["s", "h", 1]})", defaults},
        {"passcode null", R"({"passcode": null})", defaults},
    };
    for (const Case& c : cases) {
        AppModel m(path());
        m.setServerURL(QStringLiteral("https://old"));
        m.setApiKey(QStringLiteral("old-key"));
        m.setPaused(true);
        m.setLanguage(QStringLiteral("pt"));
        m.setLaunchAtLogin(false);
        m.setPasscode(Passcode{QStringLiteral("b2xk"), QStringLiteral("b2xk"), 7});
        QFile::remove(path());
        if (c.content) writeFile(path(), *c.content);
        m.load();
        EXPECT_EQ(persisted(m), QString::fromUtf8(c.expected)) << c.row;
        EXPECT_EQ(readAll(path()), c.content.value_or(QByteArray())) << c.row << ": load wrote the file";
        // A file that was there but not read may hold the only API key: no save replaces it.
        const bool unread = c.content && !c.content->isEmpty() && std::strcmp(c.expected, before) == 0;
        EXPECT_EQ(m.save(), !unread) << c.row;
        if (unread) {
            EXPECT_EQ(readAll(path()), *c.content) << c.row << ": an unread file was replaced";
        }
    }
}

// A failed save leaves the old file and no temporary one behind.
TEST_F(AppModelTest, SaveWritesEveryKeyPrettyPrintedAndPrivatelyOrNothing) {
    AppModel m(path());
    m.load();  // without a file: the initial values, and nothing written
    EXPECT_EQ(persisted(m), "||0|system|1|");
    EXPECT_FALSE(QFile::exists(path()));
    m.setServerURL(QStringLiteral("https://s"));
    m.setApiKey(QStringLiteral("k"));
    writeFile(path(), "{}");
    ::chmod(QFile::encodeName(path()).constData(), 0644);
    EXPECT_TRUE(m.save());

    EXPECT_EQ(readAll(path()),
              "{\n    \"api_key\": \"k\",\n    \"language\": \"system\",\n    \"launch_at_login\": true,\n"
              "    \"paused\": false,\n    \"server_url\": \"https://s\"\n}\n");
    struct stat st {};
    ASSERT_EQ(::stat(QFile::encodeName(path()).constData(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(strays(dir.path()), QStringList());

    // A record as large as the server may send (its answers reach 1 MiB) is read back.
    const Passcode p{QStringLiteral("c2FsdA=="), QString(1024 * 1024, u'A'), 4294967295LL};
    m.setPasscode(p);
    EXPECT_TRUE(m.save());
    AppModel again(path());
    again.load();
    EXPECT_EQ(again.passcode(), p);
    EXPECT_EQ(again.serverURL(), QStringLiteral("https://s"));
    EXPECT_TRUE(readAll(path()).contains("\"iterations\": 4294967295"));
    const QByteArray old = readAll(path());

    // A write that fails midway, even for root: the file size limit.
    m.setApiKey(QString(200000, u'k'));
    struct rlimit saved {};
    ::getrlimit(RLIMIT_FSIZE, &saved);
    const auto previous = std::signal(SIGXFSZ, SIG_IGN);
    struct rlimit small = saved;
    small.rlim_cur = 4096;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    EXPECT_FALSE(m.save());
    ::setrlimit(RLIMIT_FSIZE, &saved);
    std::signal(SIGXFSZ, previous);
    EXPECT_EQ(readAll(path()), old);
    EXPECT_EQ(strays(dir.path()), QStringList());

    // More than load would read back is never written.
    m.setApiKey(QString(4 * 1024 * 1024, u'k'));
    EXPECT_FALSE(m.save());
    EXPECT_EQ(readAll(path()), old);

    // A rename that fails: the target is a non-empty folder.
    const QString blocked = dir.filePath(QStringLiteral("blocked/config.json"));
    ASSERT_TRUE(QDir().mkpath(blocked));
    writeFile(blocked + QStringLiteral("/keep"), "x");
    AppModel b(blocked);
    b.setPaused(true);  // saves
    EXPECT_TRUE(QFileInfo(blocked).isDir());
    EXPECT_EQ(strays(dir.filePath(QStringLiteral("blocked"))), QStringList());

    // The folder replaced by a file: nothing to write into.
    const QString folderIsFile = dir.filePath(QStringLiteral("plain"));
    writeFile(folderIsFile, "x");
    AppModel c(folderIsFile + QStringLiteral("/config.json"));
    c.setPaused(true);
    EXPECT_EQ(readAll(folderIsFile), QByteArray("x"));

    // A pipe in the file's place is neither read (load must not block on it) nor replaced.
    QFile::remove(path());
    ASSERT_EQ(::mkfifo(QFile::encodeName(path()).constData(), 0600), 0);
    AppModel pipe(path());
    pipe.load();
    EXPECT_EQ(pipe.language(), QStringLiteral("system"));
    EXPECT_FALSE(pipe.save());
    EXPECT_TRUE(::stat(QFile::encodeName(path()).constData(), &st) == 0 && S_ISFIFO(st.st_mode));
}

// Each announcement comes with the old value still in place, and the login item is switched
// only once the file holds the new setting. Load announces in order and saves nothing, but
// applies launch at login; a setter saves only a change, and the server address never.
TEST_F(AppModelTest, AnnouncesBeforeStoringAndSavesOnlyOnChange) {
    const QByteArray content =
        R"({"server_url": "s", "api_key": "k", "paused": true, "language": "en", "launch_at_login": false,
            "passcode": {"salt": "c2FsdA==", "hash": "aGFzaA==", "iterations": 1}})";
    writeFile(path(), content);
    AppModel m(path());
    test::RecordingLoginItem item;
    item.current = LoginItem::Status::enabled;
    m.setLoginItem(&item);
    QStringList events;
    QObject::connect(&m, &AppModel::aboutToChange, [&](AppModel::Field f) {
        events << QStringLiteral("%1 paused=%2 launch=%3")
                      .arg(QMetaEnum::fromType<AppModel::Field>().valueToKey(int(f)))
                      .arg(m.paused())
                      .arg(m.launchAtLogin());
    });
    const auto saved = [&](const char* key) {
        return QJsonDocument::fromJson(readAll(path())).object().value(QLatin1String(key));
    };
    item.onChange = [&] {
        events << QStringLiteral("login item, file launch=%1").arg(saved("launch_at_login").toBool());
    };

    m.load();
    EXPECT_EQ(readAll(path()), content);
    EXPECT_EQ(strays(dir.path()), QStringList());
    EXPECT_EQ(item.calls, QStringList{"unregister"});
    m.setPaused(true);  // equal: announced, not saved
    EXPECT_EQ(readAll(path()), content);
    m.setPaused(false);
    EXPECT_FALSE(saved("paused").toBool());
    m.setLaunchAtLogin(true);  // saved, then the login item is switched on
    m.setServerURL(QStringLiteral("https://s"));
    EXPECT_EQ(saved("server_url").toString(), "s") << "serverURL must not save by itself";
    m.setLanguage(QStringLiteral("pt"));
    EXPECT_EQ(saved("language").toString(), "pt");
    EXPECT_EQ(events, (QStringList{
                          "serverURL paused=0 launch=1",
                          "apiKey paused=0 launch=1",
                          "paused paused=0 launch=1",
                          "language paused=1 launch=1",
                          "passcode paused=1 launch=1",
                          "launchAtLogin paused=1 launch=1",
                          "login item, file launch=0",
                          "paused paused=1 launch=0",
                          "paused paused=1 launch=0",
                          "launchAtLogin paused=0 launch=0",
                          "login item, file launch=1",
                          "serverURL paused=0 launch=1",
                          "language paused=0 launch=1",
                      }));

    // An observer queued behind the announcement sees the stored value.
    QString seen;
    QObject::connect(
        &m, &AppModel::aboutToChange, &m, [&](AppModel::Field) { seen = m.connectedAs(); },
        Qt::QueuedConnection);
    m.setConnectedAs(QStringLiteral("ana@example.com"));
    EXPECT_EQ(seen, QString());
    QCoreApplication::processEvents();
    EXPECT_EQ(seen, QStringLiteral("ana@example.com"));
}

TEST_F(AppModelTest, EffectiveLanguageFollowsTheSettingThenTheSystem) {
    struct Case {
        const char* language;
        QStringList system;
        const char* lang;
    };
    const Case cases[] = {
        {"pt", {"en-US"}, "pt"},     {"en", {"pt-BR"}, "en"},           {"system", {"pt-PT", "en"}, "pt"},
        {"system", {"PT-br"}, "pt"}, {"system", {"es-ES", "pt"}, "en"}, {"system", {}, "en"},
        {"fr", {"pt-BR"}, "pt"},     {"system", {"C"}, "en"},
    };
    for (const Case& c : cases) {
        AppModel m(path());
        m.setLanguageSource([&] { return c.system; });
        m.setLanguage(QString::fromLatin1(c.language));
        EXPECT_EQ(m.lang(), QString::fromLatin1(c.lang))
            << c.language << " " << c.system.join(u',').toStdString();
    }
}

TEST_F(AppModelTest, IconStatePrefersPausedThenPermission) {
    struct Case {
        bool paused, accessibility;
        AppModel::IconState state;
    };
    using I = AppModel::IconState;
    const Case cases[] = {{true, false, I::paused},
                          {true, true, I::paused},
                          {false, true, I::tracking},
                          {false, false, I::noPermission}};
    AppModel m(path());
    for (const Case& c : cases) {
        m.setPaused(c.paused);
        m.setAccessibilityOK(c.accessibility);
        EXPECT_EQ(m.iconState(), c.state) << c.paused << c.accessibility;
    }
}

using Status = LoginItem::Status;

// A failure is logged and the setting kept as wanted.
TEST_F(AppModelTest, LaunchAtLoginActsOnlyOnADifferenceAndOnlyForAnInstalledProgram) {
    struct Case {
        const char* row;
        bool installed, systemWide, wanted;
        Status status;
        QStringList calls;
        bool fail = false;
    };
    const Case cases[] = {
        {"wanted, enabled", true, false, true, Status::enabled, {}},
        {"wanted, not registered", true, false, true, Status::notRegistered, {"register"}},
        {"wanted, requires approval", true, false, true, Status::requiresApproval, {"register"}},
        {"wanted, not found", true, false, true, Status::notFound, {"register"}},
        {"unwanted, enabled", true, false, false, Status::enabled, {"unregister"}},
        {"unwanted, requires approval", true, false, false, Status::requiresApproval, {}},
        {"unwanted, not registered", true, false, false, Status::notRegistered, {}},
        {"system-wide entry, wanted", true, true, true, Status::notRegistered, {}},
        {"system-wide entry, unwanted", true, true, false, Status::enabled, {}},
        {"development build", false, false, false, Status::enabled, {}},
        {"unwanted, refused", true, false, false, Status::enabled, {"unregister"}, true},
        {"wanted, refused", true, false, true, Status::notRegistered, {"register"}, true},
    };
    for (const Case& c : cases) {
        test::RecordingLog log;
        test::RecordingLoginItem item;
        AppModel m(path());
        m.setLoginItem(nullptr);
        m.setLaunchAtLogin(c.wanted);
        item.installed = c.installed;
        item.systemWide = c.systemWide;
        item.current = c.status;
        item.fail = c.fail;
        m.setLoginItem(&item);
        m.applyLaunchAtLogin();
        EXPECT_EQ(item.calls, c.calls) << c.row;
        EXPECT_EQ(m.launchAtLogin(), c.wanted) << c.row;
        const QStringList failed{"CorviAgent: iniciar com o sistema falhou: refused"};
        EXPECT_EQ(log.systemLines, c.fail ? failed : QStringList()) << c.row;
    }
}

}  // namespace
}  // namespace corvi
