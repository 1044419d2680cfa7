// The settings pages and the permission window: what they show for each state of the model,
// what their controls do, and how they look in both appearances.
#include <gtest/gtest.h>

#include <QDir>
#include <QLineEdit>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTest>

#include "Palette.h"
#include "model/AppModel.h"
#include "support/EventLoop.h"
#include "ui/AboutTab.h"
#include "ui/ConnectionTab.h"
#include "ui/PermissionView.h"
#include "ui/PillField.h"
#include "ui/PillRow.h"
#include "ui/SettingsTabs.h"
#include "ui/SettingsView.h"
#include "ui/StatusTab.h"
#include "ui/Theme.h"
#include "ui/ThemedWidgets.h"

namespace corvi {
namespace {

using test::waitFor;

class SettingsViews : public ::testing::Test {
  protected:
    void SetUp() override {
        test::usePalette(false);
        model.setLanguage("en");
    }

    SettingsHooks hooks() {
        SettingsHooks h;
        h.defaultServer = "http://127.0.0.1:1";
        h.webAddress = "https://corvi.example";
        h.grant = [this] { ++grants; };
        h.machineWideAutostart = [this] { return machineWide; };
        h.openUrl = [this](const QUrl& url) { opened << url.toString(); };
        return h;
    }
    // Lets the queued refreshes of the model's changes run.
    static void settle() { test::settle(50); }

    QTemporaryDir dir;
    AppModel model{dir.filePath("config.json")};
    int grants = 0;
    bool machineWide = false;
    QStringList opened;
};

TEST(StatusTabRel, ReadsSecondsThenWholeMinutes) {
    struct Case {
        double ago;
        const char* en;
        const char* pt;
    };
    const Case cases[] = {
        {0.9, "0s ago", "há 0s"},
        {59, "59s ago", "há 59s"},
        {60, "1min ago", "há 1min"},
        {119, "1min ago", "há 1min"},
        {3 * 3600, "180min ago", "há 180min"},
    };
    const double now = 1'800'000'000.25;
    for (const Case& c : cases) {
        EXPECT_EQ(StatusTab::rel(now - c.ago, now, false), QString::fromUtf8(c.en)) << c.ago;
        EXPECT_EQ(StatusTab::rel(now - c.ago, now, true), QString::fromUtf8(c.pt)) << c.ago;
    }
}

TEST_F(SettingsViews, StatusRowsFollowTheModel) {
    struct Case {
        const char* lang;
        bool paused, granted, reachable;
        qint64 pending;
        std::optional<double> ago;
        QList<QColor> dots;  // of the first three rows; the others have none
        bool grantShown;
        QString shown;  // each row's "key: value"
    };
    const QColor g = Theme::green(), y = Theme::yellow(), i = Theme::inactive();
    const Case cases[] = {
        {"en", false, true, true, 3, 59, QList{g, g, g}, false,
         "Tracking: Yes | Accessibility: Granted | Server: Connected | "
         "Pending upload: 3 | Last sync: 59s ago"},
        {"pt", true, false, false, 0, std::nullopt, QList{y, y, i}, true,
         "Coletando: Pausado | Acessibilidade: Faltando | Servidor: Offline | "
         "Pendentes de envio: 0 | Última sincronização: nunca"},
        {"en", false, false, false, 12, std::nullopt, QList{g, y, i}, true,
         "Tracking: Yes | Accessibility: Missing | Server: Offline | Pending upload: 12 | Last sync: never"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.shown.toStdString());
        SettingsTabs tabs(model, hooks());
        tabs.setTab(1);
        tabs.show();
        model.setLanguage(c.lang);
        model.setPaused(c.paused);
        model.setAccessibilityOK(c.granted);
        model.setServerReachable(c.reachable);
        model.setPending(c.pending);
        model.setLastSync(c.ago ? std::optional(QDateTime::currentMSecsSinceEpoch() / 1000.0 - *c.ago)
                                : std::nullopt);
        settle();
        StatusTab* page = tabs.statusTab();
        ASSERT_EQ(tabs.page(), page);
        QStringList shown;
        for (int r = 0; r < 5; ++r) {
            shown << page->row(r)->key() + ": " + page->row(r)->value();
            EXPECT_EQ(page->row(r)->dot()->isVisible(), r < 3) << r;
            if (r < 3) {
                EXPECT_EQ(page->row(r)->dot()->color(), c.dots[r]) << r;
            }
        }
        EXPECT_EQ(shown.join(" | "), c.shown);
        EXPECT_EQ(page->grantButton()->isVisible(), c.grantShown);
        if (c.grantShown) {
            EXPECT_EQ(page->grantButton()->text(), c.lang == std::string("pt") ? "Conceder" : "Grant");
            QTest::mouseClick(page->grantButton(), Qt::LeftButton);
            EXPECT_EQ(grants, 1);
            grants = 0;
        }
    }
}

TEST_F(SettingsViews, ConnectionPageShowsTheAccountUntilDisconnect) {
    SettingsTabs tabs(model, hooks());
    tabs.show();  // asks for the identity: not configured, so "unreachable" at once
    model.setConnectedAs(QString::fromUtf8("Ana Souza \u00b7 Studio 3"));
    model.setServerReachable(true);
    settle();
    ConnectionTab* page = tabs.connectionTab();
    EXPECT_EQ(page->title(), "Connection");
    EXPECT_EQ(page->machineRow()->key(), "This computer");
    EXPECT_EQ(page->machineRow()->value(), QString::fromUtf8("Ana Souza \u00b7 Studio 3"));
    EXPECT_EQ(page->statusRow()->value(), "Connected");
    EXPECT_EQ(page->statusRow()->dot()->color(), Theme::green());
    EXPECT_FALSE(page->notConnectedText()->isVisible());

    model.setServerReachable(false);
    settle();
    EXPECT_EQ(page->statusRow()->value(), "Offline");
    EXPECT_EQ(page->statusRow()->dot()->color(), Theme::inactive());

    QTest::mouseClick(page->disconnectButton(), Qt::LeftButton);
    settle();
    EXPECT_TRUE(model.connectedAs().isEmpty());
    for (QWidget* gone : {static_cast<QWidget*>(page->machineRow()), static_cast<QWidget*>(page->statusRow()),
                          static_cast<QWidget*>(page->disconnectButton())})
        EXPECT_FALSE(gone->isVisible());
    EXPECT_TRUE(page->notConnectedText()->isVisible());
    EXPECT_EQ(page->notConnectedText()->text(), "Not connected yet. Close and sign in with your account.");
}

TEST_F(SettingsViews, AboutPageSwitchesLanguageAndStartAtLogin) {
    model.setSettingsUnlocked(true);
    model.setLaunchAtLogin(true);
    SettingsView view(model, hooks());
    view.show();
    settle();
    SettingsTabs* tabs = view.tabs();
    ASSERT_TRUE(tabs);
    EXPECT_EQ(tabs->tab(), 0);
    tabs->setTab(7);  // anything but 0 and 1 is About
    settle();
    ASSERT_EQ(tabs->page(), tabs->aboutTab());
    AboutTab* about = tabs->aboutTab();
    const auto labels = [&] {
        QStringList l;
        for (auto* b : tabs->tabButtons()) l << b->text();
        for (auto* b : about->languageButtons()) l << b->text();
        return l << about->title() << about->versionRow()->key();
    };
    EXPECT_EQ(labels(),
              QStringList({"Connection", "Status", "About", "System", "PT", "EN", "About", "Version"}));

    QTest::mouseClick(about->languageButtons()[1], Qt::LeftButton);
    settle();
    EXPECT_EQ(model.language(), "pt");
    EXPECT_EQ(labels(),
              QStringList({"Conexão", "Status", "Sobre", "Sistema", "PT", "EN", "Sobre", "Versão"}));
    EXPECT_EQ(about->languageButtons()[1]->fillColor(), Theme::accent());
    EXPECT_EQ(about->languageButtons()[2]->fillColor().alpha(), 0);

    QTest::mouseClick(about->languageButtons()[0], Qt::LeftButton);
    EXPECT_EQ(model.language(), "system");
    EXPECT_TRUE(about->uuidText()->text().startsWith("UUID "));

    ASSERT_TRUE(about->launchRow()->isVisible());
    EXPECT_TRUE(about->launchSwitch()->isOn());
    QTest::mouseClick(about->launchSwitch(), Qt::LeftButton);
    settle();
    EXPECT_FALSE(model.launchAtLogin());
    EXPECT_FALSE(about->launchSwitch()->isOn());
    // The knob slides over 0.15 s to the left end.
    EXPECT_TRUE(waitFor([&] { return about->launchSwitch()->knobOffset() == -8; }, 1000));
    // A machine-wide entry starts it for everyone: no switch of one's own.
    machineWide = true;
    SettingsTabs wide(model, hooks());
    wide.setTab(2);
    wide.show();
    settle();
    EXPECT_FALSE(wide.aboutTab()->launchRow()->isVisible());
}

// The pixel at the middle of `w`'s left end, a few pixels in, in `shot` of `root`.
QColor leftEnd(const QImage& shot, QWidget* root, QWidget* w, int in = 6) {
    const QPoint p = w->mapTo(root, QPoint(in, w->height() / 2)) * shot.devicePixelRatio();
    return shot.pixelColor(p);
}

TEST_F(SettingsViews, ScreensPaintThePaletteInLightAndDark) {
    const QString artefacts = QStringLiteral(CORVI_ARTEFACTS);
    QDir().mkpath(artefacts);
    for (bool dark : {false, true}) {
        SCOPED_TRACE(dark ? "dark" : "light");
        test::usePalette(dark);
        ASSERT_EQ(Theme::isDark(), dark);
        const QString suffix = dark ? "-dark.png" : "-light.png";

        SettingsView form(model, hooks());
        form.show();
        QTest::keyClicks(form.emailField()->field(), "ana@studio.example");
        QTest::keyClicks(form.passwordField()->field(), "secret");
        settle();
        QImage shot = form.grab().toImage();
        shot.save(artefacts + "/sign-in" + suffix);
        EXPECT_EQ(shot.pixelColor(3, 3), Theme::surf());
        EXPECT_EQ(leftEnd(shot, &form, form.signInButton(), 20), Theme::accent());
        EXPECT_EQ(leftEnd(shot, &form, form.emailField()->capsule(), 20), Theme::surf2());
        QTest::mouseClick(form.signUpLink(), Qt::LeftButton);
        EXPECT_EQ(opened, QStringList(dark ? 2 : 1, "https://corvi.example/app"));

        model.setSettingsUnlocked(true);
        SettingsView settings(model, hooks());
        settings.show();
        SettingsTabs* tabs = settings.tabs();
        ASSERT_TRUE(tabs);
        const char* names[] = {"connection", "status", "about"};
        for (int t = 0; t < 3; ++t) {
            tabs->setTab(t);
            settle();
            shot = settings.grab().toImage();
            shot.save(artefacts + "/tab-" + names[t] + suffix);
            EXPECT_EQ(shot.pixelColor(3, 3), Theme::surf()) << names[t];
            for (int b = 0; b < 3; ++b)
                EXPECT_EQ(leftEnd(shot, &settings, tabs->tabButtons()[b], 8),
                          b == t ? Theme::accent() : Theme::surf2())
                    << names[t] << " button " << b;
        }
        model.setSettingsUnlocked(false);

        model.setAccessibilityOK(dark);  // waiting in light, granted in dark
        PermissionView permission(model, {});
        permission.show();
        settle();
        shot = permission.grab().toImage();
        shot.save(artefacts + "/permission" + suffix);
        EXPECT_EQ(shot.pixelColor(3, 3), Theme::surf());
        EXPECT_EQ(leftEnd(shot, &permission, permission.openSettingsButton(), 10), Theme::accent());
        EXPECT_EQ(permission.statusDot()->color(), dark ? Theme::green() : Theme::yellow());
        EXPECT_EQ(permission.statusText()->text(),
                  dark ? QString::fromUtf8("Permission granted — thank you!")
                       : QString::fromUtf8("Waiting for the permission… this window closes by itself."));
    }
    test::usePalette(false);
}

}  // namespace
}  // namespace corvi
