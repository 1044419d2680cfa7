#include "platform/linux/CompoundTextDecoder.h"

#include <X11/Xlib.h>
#include <X11/Xutil.h>

namespace corvi {
namespace {

#ifdef CORVI_HAVE_IO_ERROR_EXIT_HANDLER
// Xlib's default ends the process on a lost connection; returning instead leaves the Display
// marked dead, and the decoder answers empty from then on.
void keepRunning(Display*, void* broken) { *static_cast<bool*>(broken) = true; }
#endif

}  // namespace

CompoundTextDecoder::CompoundTextDecoder(const QByteArray& displayName) {
#ifdef CORVI_HAVE_IO_ERROR_EXIT_HANDLER
    Display* dpy = XOpenDisplay(displayName.constData());
    if (dpy) XSetIOErrorExitHandler(dpy, keepRunning, &broken_);
    display_ = dpy;
#else
    // Without a way to survive a lost connection, an Xlib display is not worth the risk.
    (void)displayName;
#endif
}

CompoundTextDecoder::~CompoundTextDecoder() {
    // After an I/O error the connection is dead and XCloseDisplay only frees.
    if (display_) XCloseDisplay(static_cast<Display*>(display_));
}

QString CompoundTextDecoder::decode(const QByteArray& bytes) {
    if (!display_ || broken_ || bytes.isEmpty()) return {};
    Display* dpy = static_cast<Display*>(display_);
    XTextProperty prop;
    prop.value = reinterpret_cast<unsigned char*>(const_cast<char*>(bytes.constData()));
    prop.encoding = XInternAtom(dpy, "COMPOUND_TEXT", False);
    prop.format = 8;
    prop.nitems = static_cast<unsigned long>(bytes.size());
    if (broken_ || prop.encoding == None) return {};
    char** list = nullptr;
    int count = 0;
    QString text;
    if (Xutf8TextPropertyToTextList(dpy, &prop, &list, &count) >= Success && list) {
        // A title is one string; a list of several is joined as Xlib would show it.
        for (int i = 0; i < count; ++i) text += QString::fromUtf8(list[i]);
        XFreeStringList(list);
    }
    return broken_ ? QString() : text;
}

}  // namespace corvi
