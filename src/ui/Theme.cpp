#include "ui/Theme.h"

#include "ui/Appearance.h"

namespace corvi {
namespace {

QColor rgb(unsigned v) {
    return QColor((v >> 16) & 255, (v >> 8) & 255, v & 255);
}

}  // namespace

bool Theme::isDark() {
    const Appearance* a = Appearance::instance();
    return a && a->isDark();
}

QColor Theme::dyn(unsigned light, unsigned dark) {
    return rgb(isDark() ? dark : light);
}

QColor Theme::surf() {
    return dyn(0xFBFBF8, 0x17181B);
}
QColor Theme::surf2() {
    return dyn(0xEFEEE7, 0x21242A);
}
QColor Theme::surf3() {
    return dyn(0xF4F3EE, 0x1B1D20);
}
QColor Theme::tx() {
    return dyn(0x17181B, 0xF0EFEB);
}
QColor Theme::tx2() {
    return dyn(0x5E5D58, 0xA3A29C);
}
QColor Theme::tx3() {
    return dyn(0x93918A, 0x6D6B64);
}
QColor Theme::accent() {
    return dyn(0x2F70D1, 0x3987E5);
}
QColor Theme::yellow() {
    return dyn(0xEDA100, 0xE0A52A);
}
QColor Theme::green() {
    return dyn(0x008300, 0x2F9E2F);
}
QColor Theme::red() {
    return dyn(0xE34948, 0xE34948);
}
QColor Theme::inactive() {
    return dyn(0xC3C2BB, 0x4B4D50);
}

QColor Theme::onAccent() {
    return QColor(255, 255, 255);
}
QColor Theme::yellowNS() {
    return QColor(237, 161, 0);
}
QColor Theme::inactiveNS() {
    return QColor(154, 152, 143);
}

}  // namespace corvi
