#include <gtest/gtest.h>

#include <QTemporaryDir>

#include "platform/linux/freedesktop/DesktopEntries.h"
#include "support/TestFiles.h"

namespace corvi {
namespace {

using test::writeFile;

TEST(DesktopEntriesTest, FoldersComeFromTheXdgVariablesInOrder) {
    struct Case {
        const char* row;
        const char* dataHome;
        const char* dataDirs;
        QStringList folders;
    };
    const QString mine = "/home/u/.local/share/applications";
    const Case cases[] = {
        {"both set", "/h", "/a:/b", {"/h/applications", "/a/applications", "/b/applications"}},
        {"relative entries ignored", "rel", "/a:rel2:", {mine, "/a/applications"}},
        {"defaults", "", "", {mine, "/usr/local/share//applications", "/usr/share//applications"}},
    };
    const test::ScopedEnv home("HOME", "/home/u");
    for (const Case& c : cases) {
        const test::ScopedEnv dataHome("XDG_DATA_HOME", c.dataHome), dataDirs("XDG_DATA_DIRS", c.dataDirs);
        EXPECT_EQ(DesktopEntries::standardFolders(), c.folders) << c.row;
    }
}

TEST(DesktopEntriesTest, FirstFolderWinsAndNamesAreThePlainKey) {
    QTemporaryDir user, system;
    const QString u = user.filePath("applications"), s = system.filePath("applications");
    writeFile(u + "/org.example.Paint.desktop", "[Desktop Entry]\nName=Paint (mine)\nStartupWMClass=Paint\n");
    writeFile(s + "/org.example.Paint.desktop", "[Desktop Entry]\nName=Paint\nStartupWMClass=PaintOld\n");
    writeFile(u + "/gone.desktop", "[Desktop Entry]\nHidden=true\n");
    writeFile(s + "/gone.desktop", "[Desktop Entry]\nName=Gone\nStartupWMClass=Gone\n");
    writeFile(s + "/kde/viewer.desktop", "[Desktop Entry]\nName[de]=Betrachter\nName=Viewer\\sPlus\n");
    writeFile(s + "/actions.desktop",
              "# comment\n[Desktop Action x]\nName=Wrong\n[Desktop Entry]\nName=Right\nStartupWMClass=Act\n"
              "[Desktop Action y]\nName=Also wrong\n");
    writeFile(s + "/broken.desktop", "garbage without groups\nName=Nope\n");
    // As Debian installs them: GIMP 2.10's without StartupWMClass, Firefox ESR's with the class
    // older Firefox sent, two KDE settings modules that both run systemsettings; and one Chrome
    // writes for a web app.
    writeFile(s + "/gimp.desktop",
              "[Desktop Entry]\nName=GNU Image Manipulation Program\nExec=gimp-2.10 %U\n");
    writeFile(s + "/firefox-esr.desktop",
              "[Desktop Entry]\nName=Firefox ESR\n"
              "Exec=/usr/lib/firefox-esr/firefox-esr %u\nStartupWMClass=Firefox-esr\n");
    writeFile(s + "/thunderbird.desktop",
              "[Desktop Entry]\nName=Thunderbird\nExec=/usr/bin/thunderbird %u\n"
              "StartupWMClass=thunderbird-default\n");
    writeFile(s + "/org.inkscape.Inkscape.desktop", "[Desktop Entry]\nName=Inkscape\nExec=inkscape %F\n");
    writeFile(s + "/kcm_kwinrules.desktop",
              "[Desktop Entry]\nName=Window Rules\nExec=systemsettings kcm_kwinrules\n");
    writeFile(s + "/kcm_kwinoptions.desktop",
              "[Desktop Entry]\nName=Window Behavior\nExec=systemsettings kcm_kwinoptions\n");
    writeFile(u + "/chrome-bmfccmnckbnljdcnoglodbceoplecbkl-Default.desktop",
              "[Desktop Entry]\nName=GNOME Handbook\nStartupWMClass=crx_bmfccmnckbnljdcnoglodbceoplecbkl\n");
    // "share//applications", as the default XDG_DATA_DIRS gives it
    DesktopEntries entries({u, system.path() + "//applications"}, {});

    struct Case {
        const char* row;
        QString instance, windowClass;  // WM_CLASS
        QString id;
        QString name;
    };
    // clang-format off
    const Case cases[] = {
        {"user entry shadows the system one", "", "Paint", "org.example.Paint", "Paint (mine)"},
        {"shadowed entry's class is not indexed", "", "PaintOld", "", ""},
        {"hidden user entry hides the system one", "", "Gone", "", ""},
        {"entry in a subfolder gets a dashed ID", "", "", "kde-viewer", "Viewer Plus"},
        {"only the main group counts", "", "Act", "actions", "Right"},
        {"file without the main group has no name", "", "", "broken", ""},
        {"unknown class", "", "Nothing", "", ""},
        {"Thunderbird by StartupWMClass", "Mail", "thunderbird-default", "thunderbird", "Thunderbird"},
        {"a web app's entry claims the instance", "crx_bmfccmnckbnljdcnoglodbceoplecbkl", "Google-chrome",
         "chrome-bmfccmnckbnljdcnoglodbceoplecbkl-Default", "GNOME Handbook"},
        {"Firefox ESR: the class is the entry's ID", "Navigator", "firefox-esr", "firefox-esr", "Firefox ESR"},
        {"older Thunderbird: the class lower-cased", "Mail", "Thunderbird", "thunderbird", "Thunderbird"},
        {"Inkscape: the instance is the entry's ID", "org.inkscape.Inkscape", "Inkscape", "org.inkscape.Inkscape", "Inkscape"},
        {"GIMP 2.10: the instance is the program Exec= runs", "gimp-2.10", "Gimp-2.10", "gimp", "GNU Image Manipulation Program"},
        {"a program several entries run names none", "systemsettings", "systemsettings", "", ""},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.row);
        if (!c.windowClass.isEmpty()) {
            EXPECT_EQ(entries.idForWmClass(c.instance, c.windowClass), c.id);
        }
        if (!c.id.isEmpty()) {
            EXPECT_EQ(entries.nameForId(c.id), c.name);
        }
    }
    // A Wayland window by app ID: an Xwayland one brings its X class, as given or lower-cased.
    for (const char* id : {"Paint", "paint", "org.example.Paint"}) {
        const ActiveWindow::Info info = describeWindow(entries, id, 7, "t");
        EXPECT_EQ(info.bundleID + " " + info.appName, "org.example.Paint Paint (mine)") << id;
    }
    EXPECT_EQ(describeWindow(entries, "", 0, "").appName, "unknown");
    EXPECT_EQ(describeWindow(entries, "org.example.None", 0, "").appName, "org.example.None");
}

TEST(DesktopEntriesTest, NameIsTheBestLocaleMatchOfTheFirstUiLanguageThatHasOne) {
    QTemporaryDir dir;
    writeFile(dir.filePath("editor.desktop"),
              "[Desktop Entry]\nName=Editor\nName[pt]=Editor PT\nName[pt_BR]=Editor BR\nName[fr]=\n"
              "Name[sr]=Cyr\nName[sr@latin]=Lat\nName[sr@ijekavian]=Ijek\nName[sr_ME]=ME\nName[sr_ME@latin]="
              "MELat\n");
    struct Case {
        const char *language, *lcAll, *lcMessages, *lang, *name;
    };
    const Case cases[] = {
        {"", "", "", "pt_BR.UTF-8", "Editor BR"},
        {"", "", "", "pt_PT.UTF-8", "Editor PT"},
        {"", "", "", "sr_ME.UTF-8@latin", "MELat"},
        {"", "", "", "sr_ME@ijekavian", "ME"},
        {"", "", "", "sr_RS@ijekavian", "Ijek"},
        {"", "", "", "sr_RS", "Cyr"},
        {"", "", "", "fr_FR.UTF-8", "Editor"},  // an empty translation falls through
        {"de:pt_BR:sr", "", "", "de_DE.UTF-8", "Editor BR"},
        {"pt_BR", "", "", "C.UTF-8", "Editor"},  // LANGUAGE is ignored in the C locale
        {"", "sr_RS", "pt", "de_DE", "Cyr"},
        {"", "", "pt", "de_DE", "Editor PT"},
        {"", "", "", "", "Editor"},
    };
    for (const Case& c : cases) {
        const test::ScopedEnv language("LANGUAGE", c.language), lcAll("LC_ALL", c.lcAll),
            lcMessages("LC_MESSAGES", c.lcMessages), lang("LANG", c.lang);
        EXPECT_EQ(DesktopEntries({dir.path()}).nameForId("editor"), QString::fromUtf8(c.name))
            << c.language << "|" << c.lcAll << "|" << c.lcMessages << "|" << c.lang;
    }
}

}  // namespace
}  // namespace corvi
