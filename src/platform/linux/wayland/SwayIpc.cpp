#include "platform/linux/wayland/SwayIpc.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <cerrno>
#include <cstring>

namespace corvi {
namespace {

constexpr char kMagic[] = "i3-ipc";
constexpr std::size_t kMagicSize = 6;
constexpr std::size_t kHeaderSize = kMagicSize + 8;
constexpr std::uint32_t kGetTree = 4;

class Socket {
  public:
    explicit Socket(int fd) : fd_(fd) {}
    ~Socket() {
        if (fd_ >= 0) close(fd_);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    int fd() const { return fd_; }

  private:
    int fd_;
};

// Waits for `events` until the deadline; false when it passes or the socket fails.
bool ready(int fd, short events, std::chrono::steady_clock::time_point deadline) {
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        pollfd p{fd, events, 0};
        const int r = poll(&p, 1, static_cast<int>(left.count()));
        if (r > 0) return (p.revents & events) != 0;
        if (r == 0 || errno != EINTR) return false;
    }
}

bool readFully(int fd, char* into, std::size_t size, std::chrono::steady_clock::time_point deadline) {
    while (size > 0) {
        if (!ready(fd, POLLIN, deadline)) return false;
        const ssize_t n = recv(fd, into, size, MSG_DONTWAIT);
        if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) return false;
        if (n > 0) {
            into += n;
            size -= static_cast<std::size_t>(n);
        }
    }
    return true;
}

// The focused window of a tree, if any: the node that holds the focus and a pid.
QJsonObject focusedWindow(const QJsonObject& node, int depth = 0) {
    if (node.value(QStringLiteral("focused")).toBool())
        return node.contains(QStringLiteral("pid")) ? node : QJsonObject();
    if (depth > 64) return {};
    for (const char* key : {"nodes", "floating_nodes"})
        for (const QJsonValue& child : node.value(QLatin1String(key)).toArray()) {
            const QJsonObject found = focusedWindow(child.toObject(), depth + 1);
            if (!found.isEmpty()) return found;
        }
    return {};
}

}  // namespace

QByteArray SwayIpc::tree() const {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path_.isEmpty() || static_cast<std::size_t>(path_.size()) >= sizeof address.sun_path) return {};
    std::memcpy(address.sun_path, path_.constData(), static_cast<std::size_t>(path_.size()));
    const Socket s(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (s.fd() < 0) return {};
    const auto deadline = std::chrono::steady_clock::now() + kTimeout;
    if (connect(s.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        if (errno != EINPROGRESS && errno != EAGAIN) return {};
        if (!ready(s.fd(), POLLOUT, deadline)) return {};
    }

    char header[kHeaderSize];
    std::memcpy(header, kMagic, kMagicSize);
    const std::uint32_t request[2] = {0, kGetTree};  // payload length, message type; host order
    std::memcpy(header + kMagicSize, request, sizeof request);
    if (!ready(s.fd(), POLLOUT, deadline) ||
        send(s.fd(), header, sizeof header, MSG_NOSIGNAL) != sizeof header)
        return {};

    if (!readFully(s.fd(), header, sizeof header, deadline) || std::memcmp(header, kMagic, kMagicSize) != 0)
        return {};
    std::uint32_t reply[2];
    std::memcpy(reply, header + kMagicSize, sizeof reply);
    if (reply[1] != kGetTree || reply[0] > kMaxReply) return {};
    QByteArray payload(static_cast<qsizetype>(reply[0]), Qt::Uninitialized);
    if (!readFully(s.fd(), payload.data(), reply[0], deadline)) return {};
    return payload;
}

std::int32_t SwayIpc::focusedPid(const QString& appId, const QString& title) const {
    const QJsonObject focused = focusedWindow(QJsonDocument::fromJson(tree()).object());
    if (focused.isEmpty() || focused.value(QStringLiteral("name")).toString() != title) return 0;
    // Xwayland windows have no app ID in the tree; their title must do.
    const QJsonValue id = focused.value(QStringLiteral("app_id"));
    if (id.isString() && id.toString() != appId) return 0;
    const qint64 pid = focused.value(QStringLiteral("pid")).toInteger();
    return pid > 0 && pid <= INT32_MAX ? static_cast<std::int32_t>(pid) : 0;
}

}  // namespace corvi
