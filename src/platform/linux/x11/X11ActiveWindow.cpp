#include "platform/linux/x11/X11ActiveWindow.h"

#include <signal.h>
#include <xcb/res.h>

#include <QFile>
#include <QStringDecoder>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <tuple>
#include <utility>

namespace corvi {
namespace {

constexpr std::uint32_t kShortLongs = 256;  // 1 KiB for class names and IDs

struct FreeDeleter {
    void operator()(void* p) const { free(p); }
};
using PropertyReply = std::unique_ptr<xcb_get_property_reply_t, FreeDeleter>;

struct Property {
    PropertyReply reply;
    bool windowGone = false;

    bool present() const { return reply && reply->type != XCB_ATOM_NONE; }
    bool isText(xcb_atom_t type) const { return present() && reply->type == type && reply->format == 8; }
    bool truncated() const { return reply && reply->bytes_after > 0; }
    QByteArray bytes() const {
        if (!reply) return {};
        QByteArray b(static_cast<const char*>(xcb_get_property_value(reply.get())),
                     xcb_get_property_value_length(reply.get()));
        while (b.endsWith('\0')) b.chop(1);
        return b;
    }
};

Property awaitProperty(X11Session& s, xcb_connection_t* c, xcb_get_property_cookie_t cookie) {
    s.willWait(cookie.sequence);
    xcb_generic_error_t* error = nullptr;
    Property p{PropertyReply(xcb_get_property_reply(c, cookie, &error)), false};
    if (error) p.windowGone = error->error_code == XCB_WINDOW;
    free(error);
    return p;
}

// Strict UTF-8, a leading U+FEFF kept as text; a text cut by the length cap loses its
// incomplete last character first. None when the bytes are not UTF-8.
std::optional<QString> utf8Of(QByteArray bytes, bool truncated) {
    if (truncated) {
        qsizetype i = bytes.size();
        int back = 0;
        while (i > 0 && back < 4 && (static_cast<unsigned char>(bytes[i - 1]) & 0xC0) == 0x80) --i, ++back;
        if (i > 0) {
            const unsigned char lead = static_cast<unsigned char>(bytes[i - 1]);
            const int need = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : lead >= 0xC0 ? 1 : 0;
            if (need > back) bytes.truncate(i - 1);
        }
    }
    QStringDecoder decoder(QStringDecoder::Utf8,
                           QStringDecoder::Flag::Stateless | QStringDecoder::Flag::ConvertInitialBom);
    QString text = decoder(bytes);
    if (decoder.hasError()) return std::nullopt;
    return text;
}

QString strictUtf8(const QByteArray& bytes, bool truncated) {
    return utf8Of(bytes, truncated).value_or(QString());
}

QString textOf(X11Session& s, const Property& p) {
    const X11Session::Atoms& a = s.atoms();
    if (p.isText(a.utf8String)) return strictUtf8(p.bytes(), p.truncated());
    if (p.isText(XCB_ATOM_STRING)) return QString::fromLatin1(p.bytes());
    if (p.isText(a.compoundText)) return s.decodeCompoundText(p.bytes());
    return {};
}

// The first usable title, as window managers show it. Tools write _NET_WM_NAME as STRING
// too, and clients in a C locale put UTF-8 bytes in a STRING WM_NAME.
QString titleOf(X11Session& s, const Property& netName, const Property& wmName) {
    const X11Session::Atoms& a = s.atoms();
    if (netName.isText(a.utf8String) || netName.isText(XCB_ATOM_STRING)) {
        const std::optional<QString> title = utf8Of(netName.bytes(), netName.truncated());
        if (title && !title->isEmpty()) return *title;
    }
    if (wmName.isText(XCB_ATOM_STRING)) {
        const QByteArray bytes = wmName.bytes();
        const std::optional<QString> utf8 = utf8Of(bytes, wmName.truncated());
        const bool multiByte =
            utf8 && std::any_of(utf8->begin(), utf8->end(), [](QChar c) { return c.unicode() >= 0x80; });
        return multiByte ? *utf8 : QString::fromLatin1(bytes);
    }
    return textOf(s, wmName);
}

// "instance\0class\0": both parts, none without the separator.
std::pair<QString, QString> windowClassOf(X11Session& s, const Property& p) {
    if (!p.isText(XCB_ATOM_STRING) && !p.isText(s.atoms().utf8String)) return {};
    const QByteArray b = p.bytes();
    const qsizetype nul = b.indexOf('\0');
    if (nul < 0) return {};
    QByteArray cls = b.mid(nul + 1);
    if (const qsizetype end = cls.indexOf('\0'); end >= 0) cls.truncate(end);
    const auto text = [&](const QByteArray& part) {
        return p.reply->type == XCB_ATOM_STRING ? QString::fromLatin1(part) : strictUtf8(part, false);
    };
    return {text(b.left(nul)), text(cls)};
}

bool processExists(std::int32_t pid) {
    return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM);
}

QByteArray readSmallFile(const QString& path) {
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly)) return {};
    return f.read(64 * 1024);
}

// The Flatpak app ID: [Application] name= in the sandbox's .flatpak-info.
QString flatpakId(std::int32_t pid) {
    const QByteArray info = readSmallFile(QStringLiteral("/proc/%1/root/.flatpak-info").arg(pid));
    bool inApplication = false;
    for (const QByteArray& raw : info.split('\n')) {
        const QByteArray line = raw.trimmed();
        if (line.startsWith('[')) {
            inApplication = line == "[Application]";
        } else if (inApplication && line.startsWith("name=")) {
            return strictUtf8(line.mid(5).trimmed(), false);
        }
    }
    return {};
}

QString processName(std::int32_t pid) {
    return strictUtf8(readSmallFile(QStringLiteral("/proc/%1/comm").arg(pid)).trimmed(), false);
}

}  // namespace

X11ActiveWindow::X11ActiveWindow(std::shared_ptr<X11Session> session, std::unique_ptr<DesktopEntries> entries)
    : session_(std::move(session)), entries_(std::move(entries)) {}

xcb_window_t X11ActiveWindow::activeWindow(xcb_connection_t* c) {
    const Property p =
        awaitProperty(*session_, c,
                      session_->sent(xcb_get_property(
                          c, 0, session_->root(), session_->atoms().netActiveWindow, XCB_ATOM_WINDOW, 0, 1)));
    if (!p.present() || p.reply->format != 32 || xcb_get_property_value_length(p.reply.get()) < 4)
        return XCB_WINDOW_NONE;
    return *static_cast<const xcb_window_t*>(xcb_get_property_value(p.reply.get()));
}

std::optional<X11ActiveWindow::Facts> X11ActiveWindow::facts(xcb_connection_t* c, xcb_window_t window) {
    // Followed before it is read, so a change between the two is not missed.
    session_->watchWindow(window);
    const std::uint64_t generation = session_->windowGeneration();
    if (kept_ && keptWindow_ == window && keptGeneration_ == generation) {
        const std::optional<QString> title = readTitle(c, window);
        if (!title) {
            kept_.reset();
            return std::nullopt;
        }
        kept_->title = *title;
        return *kept_;
    }
    kept_ = read(c, window);
    keptWindow_ = window;
    keptGeneration_ = generation;
    if (!kept_) return std::nullopt;
    return *kept_;
}

std::optional<QString> X11ActiveWindow::readTitle(xcb_connection_t* c, xcb_window_t w) {
    X11Session& s = *session_;
    constexpr std::uint32_t titleLongs = kTitleBytes / 4;
    const auto netName =
        s.sent(xcb_get_property(c, 0, w, s.atoms().netWmName, XCB_GET_PROPERTY_TYPE_ANY, 0, titleLongs));
    const auto wmName =
        s.sent(xcb_get_property(c, 0, w, XCB_ATOM_WM_NAME, XCB_GET_PROPERTY_TYPE_ANY, 0, titleLongs));
    const Property pNetName = awaitProperty(s, c, netName);
    const Property pWmName = awaitProperty(s, c, wmName);
    if (pNetName.windowGone || pWmName.windowGone || xcb_connection_has_error(c)) return std::nullopt;
    return titleOf(s, pNetName, pWmName);
}

std::optional<X11ActiveWindow::Facts> X11ActiveWindow::read(xcb_connection_t* c, xcb_window_t w) {
    X11Session& s = *session_;
    const X11Session::Atoms& a = s.atoms();
    constexpr std::uint32_t titleLongs = kTitleBytes / 4;
    const auto netName =
        s.sent(xcb_get_property(c, 0, w, a.netWmName, XCB_GET_PROPERTY_TYPE_ANY, 0, titleLongs));
    const auto wmName =
        s.sent(xcb_get_property(c, 0, w, XCB_ATOM_WM_NAME, XCB_GET_PROPERTY_TYPE_ANY, 0, titleLongs));
    const auto wmClass =
        s.sent(xcb_get_property(c, 0, w, XCB_ATOM_WM_CLASS, XCB_GET_PROPERTY_TYPE_ANY, 0, kShortLongs));
    const auto netPid = s.sent(xcb_get_property(c, 0, w, a.netWmPid, XCB_ATOM_CARDINAL, 0, 1));
    const auto gtkId =
        s.sent(xcb_get_property(c, 0, w, a.gtkApplicationId, XCB_GET_PROPERTY_TYPE_ANY, 0, kShortLongs));
    const auto kdeFile =
        s.sent(xcb_get_property(c, 0, w, a.kdeDesktopFile, XCB_GET_PROPERTY_TYPE_ANY, 0, kShortLongs));
    xcb_res_query_client_ids_cookie_t resCookie{};
    if (s.hasResourceExtension()) {
        xcb_res_client_id_spec_t query{w, XCB_RES_CLIENT_ID_MASK_LOCAL_CLIENT_PID};
        resCookie = s.sent(xcb_res_query_client_ids(c, 1, &query));
    }

    const Property pNetName = awaitProperty(s, c, netName);
    const Property pWmName = awaitProperty(s, c, wmName);
    const Property pClass = awaitProperty(s, c, wmClass);
    const Property pPid = awaitProperty(s, c, netPid);
    const Property pGtk = awaitProperty(s, c, gtkId);
    const Property pKde = awaitProperty(s, c, kdeFile);
    std::int32_t resPid = 0;
    if (s.hasResourceExtension()) {
        s.willWait(resCookie.sequence);
        xcb_generic_error_t* error = nullptr;
        if (auto* reply = xcb_res_query_client_ids_reply(c, resCookie, &error)) {
            // Only the pid was asked for, so any value that carries one is it.
            for (auto it = xcb_res_query_client_ids_ids_iterator(reply); it.rem;
                 xcb_res_client_id_value_next(&it)) {
                if (xcb_res_client_id_value_value_length(it.data) >= 1) {
                    resPid = static_cast<std::int32_t>(*xcb_res_client_id_value_value(it.data));
                    break;
                }
            }
            free(reply);
        }
        free(error);
    }
    if (pNetName.windowGone || pClass.windowGone || pPid.windowGone) return std::nullopt;
    if (xcb_connection_has_error(c)) return std::nullopt;

    Facts f;
    f.title = titleOf(s, pNetName, pWmName);
    std::tie(f.instance, f.windowClass) = windowClassOf(s, pClass);
    f.gtkApplicationId = textOf(s, pGtk).trimmed();
    f.kdeDesktopFile = desktopFileId(textOf(s, pKde));
    std::int32_t pid = resPid;
    if (pid <= 0 && pPid.present() && pPid.reply->format == 32 &&
        xcb_get_property_value_length(pPid.reply.get()) >= 4)
        pid = static_cast<std::int32_t>(
            *static_cast<const std::uint32_t*>(xcb_get_property_value(pPid.reply.get())));
    f.pid = processExists(pid) ? pid : 0;
    return f;
}

std::optional<ActiveWindow::Info> X11ActiveWindow::current() {
    xcb_connection_t* c = session_->connection();
    if (!c) return std::nullopt;
    const xcb_window_t window = activeWindow(c);
    if (window == XCB_WINDOW_NONE) return std::nullopt;
    const std::optional<Facts> f = facts(c, window);
    if (!f) return std::nullopt;

    if (window != sandboxWindow_ || f->pid != sandboxPid_) {
        sandboxWindow_ = window;
        sandboxPid_ = f->pid;
        sandboxId_ = f->pid > 0 ? flatpakId(f->pid) : QString();
    }
    QString id = sandboxId_;
    if (id.isEmpty()) id = f->gtkApplicationId;
    if (id.isEmpty()) id = f->kdeDesktopFile;
    if (id.isEmpty()) id = entries_->idForWmClass(f->instance, f->windowClass);
    if (id.isEmpty()) id = f->windowClass;

    Info info;
    info.bundleID = id.isEmpty() ? QStringLiteral("unknown") : id;
    if (!id.isEmpty()) info.appName = entries_->nameForId(id);
    if (info.appName.isEmpty()) info.appName = f->windowClass;
    if (info.appName.isEmpty() && f->pid > 0) info.appName = processName(f->pid);
    if (info.appName.isEmpty()) info.appName = info.bundleID;
    info.pid = f->pid;
    info.windowTitle = f->title;
    return info;
}

QString X11ActiveWindow::focusedWindowTitle(std::int32_t pid) {
    xcb_connection_t* c = session_->connection();
    if (!c) return {};
    const xcb_window_t window = activeWindow(c);
    if (window == XCB_WINDOW_NONE) return {};
    const std::optional<Facts> f = facts(c, window);
    return f && f->pid == pid ? f->title : QString();
}

}  // namespace corvi
