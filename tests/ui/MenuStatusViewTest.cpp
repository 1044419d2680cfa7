#include <gtest/gtest.h>

#include <QMenu>
#include <QTest>
#include <QWidgetAction>

#include "ImageProbe.h"
#include "ui/MenuStatusView.h"
#include "ui/Theme.h"

namespace corvi {
namespace {

using namespace corvi::test;

TEST(MenuStatusView, DrawsDotTextAndReachabilityWithoutOverlap) {
    struct Case {
        const char* name;
        QColor dot;
        const char* text;
        bool online;
    };
    const Case cases[] = {
        {"tracking, online", Theme::green(), "Coletando", true},
        {"no permission, offline", Theme::yellow(), "Sem permissão", false},
        {"paused, offline", Theme::inactive(), "Pausado", false},
        {"long text widens the row", Theme::red(), "A status text far longer than the menu", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        MenuStatusView view;
        view.setState(c.dot, QString::fromUtf8(c.text), c.online);
        view.resize(view.sizeHint());
        const QImage img = rendered(view);
        ASSERT_EQ(img.height(), 28);
        EXPECT_GE(img.width(), 180);

        // The 9-wide dot after 14 of padding, centred on the middle row (9.5 to 18.5), in the status colour.
        EXPECT_EQ(coveredBox(img, QRect(0, 0, 14 + 9 + 4, 28)), QRect(14, 9, 9, 10));
        EXPECT_TRUE(sameRgb(straightColor(img, 18, 14), c.dot));

        // Ink runs from the text at 32 to the reachability word ending near width - 14, with a
        // clear gap of at least 12 + 2 × 9 between the two words.
        std::vector<int> ink;  // columns with any ink
        for (int x = 14 + 9 + 1; x < img.width(); ++x)
            if (columnCoverage(img, x) > 0) ink.push_back(x);
        ASSERT_FALSE(ink.empty());
        EXPECT_GE(ink.front(), 32);
        EXPECT_LE(ink.back(), img.width() - 14);
        EXPECT_GE(ink.back(), img.width() - 16);
        int widest = 0;
        for (std::size_t i = 1; i < ink.size(); ++i) widest = std::max(widest, ink[i] - ink[i - 1] - 1);
        EXPECT_GE(widest, 30);

        // "Online" in the theme's green; "Offline" in the secondary text colour.
        const QColor reach = mostOpaque(img, QRect(img.width() - 30, 0, 16, 28));
        const QColor expected = c.online ? Theme::green() : view.offlineColor();
        EXPECT_TRUE(sameRgb(reach, expected, 3)) << describe(reach).toStdString();
        const QColor text = mostOpaque(img, QRect(32, 0, 20, 28));
        EXPECT_TRUE(sameRgb(text, view.textColor(), 3)) << describe(text).toStdString();
    }
}

TEST(MenuStatusView, FollowsTheMenuWidthAtFixedHeight) {
    QMenu menu;
    auto* view = new MenuStatusView;
    view->setState(Theme::green(), QStringLiteral("Tracking"), true);
    auto* action = new QWidgetAction(&menu);
    action->setDefaultWidget(view);
    menu.addAction(action);
    menu.addSeparator();
    menu.addAction(QStringLiteral("A menu entry much wider than the status line ever is"));
    menu.popup(QPoint(20, 20));
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&menu));
    EXPECT_EQ(view->height(), 28);
    EXPECT_GT(view->width(), 180);
    EXPECT_GE(view->width(), menu.actionGeometry(menu.actions().last()).width());
    menu.hide();
}

}  // namespace
}  // namespace corvi
