#include "platform/linux/x11/CompoundTextDecoder.h"

#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <algorithm>
#include <mutex>
#include <vector>

namespace corvi {
namespace {

#ifdef CORVI_HAVE_IO_ERROR_EXIT_HANDLER
// Xlib ends the process on a lost connection twice over: the process-wide I/O error handler
// and the display's exit handler both default to exit(). For our displays both return, which
// leaves the Display marked dead; other displays in the process keep the handler they had.
std::mutex ourDisplaysLock;
std::vector<Display*> ourDisplays;
XIOErrorHandler previousHandler = nullptr;

int ioError(Display* dpy) {
    {
        std::lock_guard<std::mutex> guard(ourDisplaysLock);
        if (std::find(ourDisplays.begin(), ourDisplays.end(), dpy) != ourDisplays.end()) return 0;
    }
    return previousHandler ? previousHandler(dpy) : 0;
}

void keepRunning(Display*, void* broken) {
    *static_cast<bool*>(broken) = true;
}

void installHandler() {
    static std::once_flag once;
    std::call_once(once, [] { previousHandler = XSetIOErrorHandler(ioError); });
}
#endif

}  // namespace

CompoundTextDecoder::CompoundTextDecoder(const QByteArray& displayName) {
#ifdef CORVI_HAVE_IO_ERROR_EXIT_HANDLER
    installHandler();
    Display* dpy = XOpenDisplay(displayName.constData());
    if (!dpy) return;
    XSetIOErrorExitHandler(dpy, keepRunning, &broken_);
    std::lock_guard<std::mutex> guard(ourDisplaysLock);
    ourDisplays.push_back(dpy);
    display_ = dpy;
#else
    // Without a way to survive a lost connection, an Xlib display is not worth the risk.
    (void)displayName;
#endif
}

CompoundTextDecoder::~CompoundTextDecoder() {
#ifdef CORVI_HAVE_IO_ERROR_EXIT_HANDLER
    if (!display_) return;
    Display* dpy = static_cast<Display*>(display_);
    // Closing a display whose server is gone raises the I/O error once more, harmlessly.
    XCloseDisplay(dpy);
    std::lock_guard<std::mutex> guard(ourDisplaysLock);
    ourDisplays.erase(std::remove(ourDisplays.begin(), ourDisplays.end(), dpy), ourDisplays.end());
#endif
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
