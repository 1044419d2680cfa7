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

#include "model/AppModel.h"
#include "model/RecordingLoginItem.h"

namespace corvi {
namespace {

QByteArray readAll(const QString& path) {
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

void writeFile(const QString& path, const QByteArray& bytes) {
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
    f.write(bytes);
}

// Everything in the folder but the configuration file itself (left-over temporary files).
QStringList strays(const QString& folder) {
    QStringList names = QDir(folder).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
    names.removeAll(QStringLiteral("config.json"));
    return names;
}

struct Persisted {
    QString serverURL, apiKey;
    bool paused;
    QString language;
    bool launchAtLogin;
    std::optional<Passcode> passcode;
};

Persisted persisted(const AppModel& m) {
    return {m.serverURL(), m.apiKey(), m.paused(), m.language(), m.launchAtLogin(), m.passcode()};
}

class AppModelTest : public ::testing::Test {
  protected:
    QTemporaryDir dir;
    QString path() const { return dir.filePath(QStringLiteral("config.json")); }
};

TEST_F(AppModelTest, WithoutAFileKeepsTheInitialValuesAndWritesNothing) {
    AppModel m(path());
    m.load();
    EXPECT_EQ(m.language(), QStringLiteral("system"));
    EXPECT_TRUE(m.launchAtLogin());
    EXPECT_FALSE(m.passcode().has_value());
    EXPECT_EQ(m.currentStateLabel(), QString(QChar(0x2014)));
    EXPECT_FALSE(QFile::exists(path()));
}

TEST_F(AppModelTest, LoadTakesWhatTheFileHoldsAndDefaultsTheRest) {
    const Persisted before{QStringLiteral("https://old"),
                           QStringLiteral("old-key"),
                           true,
                           QStringLiteral("pt"),
                           false,
                           Passcode{QStringLiteral("b2xk"), QStringLiteral("b2xk"), 7}};
    const auto defaultsKeeping = [&](std::optional<Passcode> p) {
        return Persisted{QString(), QString(), false, QStringLiteral("system"), true, p};
    };
    const Passcode good{QStringLiteral("c2FsdA=="), QStringLiteral("aGFzaA=="), 4096};
    const QByteArray nested = QByteArray(100000, '[') + QByteArray(100000, ']');
    const QByteArray huge = "{\"server_url\": \"" + QByteArray(50 * 1024 * 1024, 'a') + "\"}";

    struct Case {
        const char* row;
        std::optional<QByteArray> content;  // none: no file
        Persisted expected;
    };
    const Case cases[] = {
        {"no file", std::nullopt, before},
        {"empty file", QByteArray(), before},
        {"not json", "server_url = x", before},
        {"top-level array", R"([{"server_url": "x"}])", before},
        {"top-level string", R"("x")", before},
        {"truncated object", R"({"server_url": "x", )", before},
        {"invalid utf-8", "{\"server_url\": \"a\xff\xfe\"}", before},
        {"deeply nested arrays", "{\"x\": " + nested + "}", before},
        {"deeply nested top level", nested, before},
        {"50 MB of json", huge, before},
        {"empty object", "{}", defaultsKeeping(before.passcode)},
        {"only paused",
         R"({"paused": true})",
         {QString(), QString(), true, QStringLiteral("system"), true, before.passcode}},
        {"all keys",
         R"({"server_url": "https://s", "api_key": "k", "paused": true, "language": "en", "launch_at_login": false,
             "passcode": {"salt": "c2FsdA==", "hash": "aGFzaA==", "iterations": 4096}})",
         {QStringLiteral("https://s"), QStringLiteral("k"), true, QStringLiteral("en"), false, good}},
        {"wrong types take defaults",
         R"({"server_url": 5, "api_key": null, "paused": 1, "language": false, "launch_at_login": "no"})",
         defaultsKeeping(before.passcode)},
        {"unknown language kept as written",
         R"({"language": "fr"})",
         {QString(), QString(), false, QStringLiteral("fr"), true, before.passcode}},
        {"duplicate keys: the last wins",
         R"({"api_key": "first", "api_key": "second"})",
         {QString(), QStringLiteral("second"), false, QStringLiteral("system"), true, before.passcode}},
        {"iterations whole double",
         R"({"passcode": {"salt": "c2FsdA==", "hash": "aGFzaA==", "iterations": 4096.0}})",
         defaultsKeeping(good)},
        {"iterations negative integer", R"({"passcode": {"salt": "s", "hash": "h", "iterations": -3}})",
         defaultsKeeping(Passcode{QStringLiteral("s"), QStringLiteral("h"), -3})},
        {"iterations 1.5", R"({"passcode": {"salt": "s", "hash": "h", "iterations": 1.5}})",
         defaultsKeeping(before.passcode)},
        {"iterations 1e30", R"({"passcode": {"salt": "s", "hash": "h", "iterations": 1e30}})",
         defaultsKeeping(before.passcode)},
        {"iterations as string", R"({"passcode": {"salt": "s", "hash": "h", "iterations": "4096"}})",
         defaultsKeeping(before.passcode)},
        {"iterations missing", R"({"passcode": {"salt": "s", "hash": "h"}})",
         defaultsKeeping(before.passcode)},
        {"salt not a string", R"({"passcode": {"salt": 1, "hash": "h", "iterations": 1}})",
         defaultsKeeping(before.passcode)},
        {"passcode an array", R"({"passcode": ["s", "h", 1]})", defaultsKeeping(before.passcode)},
        {"passcode null", R"({"passcode": null})", defaultsKeeping(before.passcode)},
    };
    for (const Case& c : cases) {
        QFile::remove(path());
        AppModel m(path());
        m.setServerURL(before.serverURL);
        m.setApiKey(before.apiKey);
        m.setPaused(before.paused);
        m.setLanguage(before.language);
        m.setLaunchAtLogin(before.launchAtLogin);
        m.setPasscode(before.passcode);
        QFile::remove(path());
        if (c.content) writeFile(path(), *c.content);

        m.load();

        const Persisted got = persisted(m);
        EXPECT_EQ(got.serverURL, c.expected.serverURL) << c.row;
        EXPECT_EQ(got.apiKey, c.expected.apiKey) << c.row;
        EXPECT_EQ(got.paused, c.expected.paused) << c.row;
        EXPECT_EQ(got.language, c.expected.language) << c.row;
        EXPECT_EQ(got.launchAtLogin, c.expected.launchAtLogin) << c.row;
        EXPECT_EQ(got.passcode, c.expected.passcode) << c.row;
        EXPECT_EQ(QFile::exists(path()), c.content.has_value()) << c.row << ": load wrote a file";
        if (c.content) {
            EXPECT_EQ(readAll(path()), *c.content) << c.row << ": load rewrote the file";
        }
    }
}

TEST_F(AppModelTest, LoadRefusesWhatIsNotARegularFile) {
    ASSERT_EQ(::mkfifo(QFile::encodeName(path()).constData(), 0600), 0);
    AppModel m(path());
    m.load();  // must not block on the pipe
    EXPECT_EQ(m.language(), QStringLiteral("system"));
}

TEST_F(AppModelTest, SaveWritesEveryKeyPrettyPrintedAndPrivately) {
    AppModel m(path());
    m.setServerURL(QStringLiteral("https://s"));
    m.setApiKey(QStringLiteral("k"));
    writeFile(path(), "{}");
    ::chmod(QFile::encodeName(path()).constData(), 0644);
    m.save();

    const QByteArray text = readAll(path());
    EXPECT_TRUE(text.contains("\n    \"api_key\": \"k\",\n")) << text.constData();
    const QJsonObject o = QJsonDocument::fromJson(text).object();
    EXPECT_EQ(o.keys(), (QStringList{"api_key", "language", "launch_at_login", "paused", "server_url"}));
    EXPECT_TRUE(o.value(QStringLiteral("launch_at_login")).isBool());
    EXPECT_TRUE(o.value(QStringLiteral("paused")).isBool());
    struct stat st {};
    ASSERT_EQ(::stat(QFile::encodeName(path()).constData(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(strays(dir.path()), QStringList());

    const Passcode p{QStringLiteral("c2FsdA=="), QStringLiteral("aGFzaA=="), 4294967295LL};
    m.setPasscode(p);
    m.save();
    AppModel again(path());
    again.load();
    EXPECT_EQ(persisted(again).passcode, p);
    EXPECT_EQ(again.serverURL(), QStringLiteral("https://s"));
    EXPECT_TRUE(readAll(path()).contains("\"iterations\": 4294967295"));
}

TEST_F(AppModelTest, FailedSaveLeavesTheOldFileAndNoStrays) {
    AppModel m(path());
    m.setApiKey(QStringLiteral("old"));
    m.save();
    const QByteArray old = readAll(path());
    ASSERT_FALSE(old.isEmpty());

    // A write that fails midway, even for root: the file size limit.
    m.setApiKey(QString(200000, u'k'));
    struct rlimit saved {};
    ::getrlimit(RLIMIT_FSIZE, &saved);
    const auto previous = std::signal(SIGXFSZ, SIG_IGN);
    struct rlimit small = saved;
    small.rlim_cur = 4096;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    m.save();
    ::setrlimit(RLIMIT_FSIZE, &saved);
    std::signal(SIGXFSZ, previous);
    EXPECT_EQ(readAll(path()), old);
    EXPECT_EQ(strays(dir.path()), QStringList());

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
}

// Records each announcement with the value in place at that moment and whether the file
// already held the new value.
TEST_F(AppModelTest, AnnouncesBeforeStoringAndSavesOnlyOnChange) {
    AppModel m(path());
    test::RecordingLoginItem item;
    m.setLoginItem(&item);
    QStringList events;
    QObject::connect(&m, &AppModel::aboutToChange, [&](AppModel::Field f) {
        events << QStringLiteral("announce %1 paused=%2 launch=%3")
                      .arg(QMetaEnum::fromType<AppModel::Field>().valueToKey(int(f)))
                      .arg(m.paused())
                      .arg(m.launchAtLogin());
    });
    item.current = LoginItem::Status::enabled;
    item.onChange = [&] {
        const QJsonObject o = QJsonDocument::fromJson(readAll(path())).object();
        events << QStringLiteral("login item, file launch=%1")
                      .arg(o.value(QStringLiteral("launch_at_login")).toBool());
    };

    m.setPaused(false);  // equal: announced, not saved
    EXPECT_FALSE(QFile::exists(path()));
    m.setPaused(true);
    EXPECT_TRUE(QJsonDocument::fromJson(readAll(path())).object().value(QStringLiteral("paused")).toBool());
    m.setLaunchAtLogin(false);  // saved, then the login item is switched off
    m.setServerURL(QStringLiteral("https://s"));
    EXPECT_FALSE(readAll(path()).contains("https://s")) << "serverURL must not save by itself";
    m.setLanguage(QStringLiteral("pt"));
    EXPECT_TRUE(readAll(path()).contains("\"language\": \"pt\""));

    EXPECT_EQ(events, (QStringList{
                          "announce paused paused=0 launch=1",
                          "announce paused paused=0 launch=1",
                          "announce launchAtLogin paused=1 launch=1",
                          "login item, file launch=0",
                          "announce serverURL paused=1 launch=0",
                          "announce language paused=1 launch=0",
                      }));
}

TEST_F(AppModelTest, LoadAnnouncesInOrderWithoutSavingButAppliesLaunchAtLogin) {
    const QByteArray content =
        R"({"server_url": "s", "api_key": "k", "paused": true, "language": "en", "launch_at_login": false,
            "passcode": {"salt": "c2FsdA==", "hash": "aGFzaA==", "iterations": 1}})";
    writeFile(path(), content);
    AppModel m(path());
    test::RecordingLoginItem item;
    item.current = LoginItem::Status::enabled;
    m.setLoginItem(&item);
    QList<AppModel::Field> fields;
    QObject::connect(&m, &AppModel::aboutToChange, [&](AppModel::Field f) { fields << f; });

    m.load();

    using F = AppModel::Field;
    EXPECT_EQ(fields,
              (QList<F>{F::serverURL, F::apiKey, F::paused, F::language, F::passcode, F::launchAtLogin}));
    EXPECT_EQ(readAll(path()), content);
    EXPECT_EQ(strays(dir.path()), QStringList());
    EXPECT_EQ(item.calls, QStringList{"unregister"});

    // A later setter saves again as usual.
    m.setPaused(false);
    EXPECT_NE(readAll(path()), content);
}

TEST_F(AppModelTest, QueuedObserverSeesTheStoredValue) {
    AppModel m(path());
    QString seen;
    QObject context;
    QObject::connect(
        &m, &AppModel::aboutToChange, &context, [&](AppModel::Field) { seen = m.connectedAs(); },
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
    const Case cases[] = {{true, false, AppModel::IconState::paused},
                          {true, true, AppModel::IconState::paused},
                          {false, true, AppModel::IconState::tracking},
                          {false, false, AppModel::IconState::noPermission}};
    AppModel m(path());
    for (const Case& c : cases) {
        m.setPaused(c.paused);
        m.setAccessibilityOK(c.accessibility);
        EXPECT_EQ(m.iconState(), c.state) << c.paused << c.accessibility;
    }
}

}  // namespace
}  // namespace corvi
