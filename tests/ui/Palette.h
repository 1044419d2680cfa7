#pragma once

#include <QApplication>
#include <QPalette>

namespace corvi::test {

// Sets the application palette's window and text colours; with no desktop portal on the bus,
// they decide the appearance.
inline void usePalette(const QColor& window, const QColor& text) {
    QPalette p = QApplication::palette();
    p.setColor(QPalette::Window, window);
    p.setColor(QPalette::WindowText, text);
    QApplication::setPalette(p);
}
inline void usePalette(bool dark) {
    usePalette(dark ? QColor(0x20, 0x20, 0x22) : QColor(0xef, 0xef, 0xef),
               dark ? QColor(0xf0, 0xf0, 0xf0) : QColor(0x10, 0x10, 0x10));
}

}  // namespace corvi::test
