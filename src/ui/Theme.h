#pragma once

#include <QColor>

namespace corvi {

// The agent's one palette. Each dynamic colour has a light and a dark value and is resolved
// when read, from the cached desktop appearance (see Appearance): read it while painting,
// never keep it, and a change of appearance recolours every view on its next paint. Without
// an application object the light values apply.
class Theme {
  public:
    Theme() = delete;

    static QColor surf();
    static QColor surf2();
    static QColor surf3();
    static QColor tx();
    static QColor tx2();
    static QColor tx3();
    static QColor accent();
    static QColor yellow();
    static QColor green();
    static QColor red();
    static QColor inactive();

    // Fixed colours, the same in both appearances.
    static QColor onAccent();
    static QColor yellowNS();    // the status icon's dot without the window permission
    static QColor inactiveNS();  // the status icon's dot while paused

    static bool isDark();

  private:
    static QColor dyn(unsigned light, unsigned dark);
};

}  // namespace corvi
