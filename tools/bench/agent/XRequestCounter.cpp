#include "XRequestCounter.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

namespace corvi::bench {

namespace {

constexpr char kSocketDir[] = "/tmp/.X11-unix/X";

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
    return a;
}

// What the client has sent so far, read as the protocol frames it: the set-up block, then
// requests, each with its length in its header (BIG-REQUESTS: a zero length and 32 more bits).
struct Framer {
    std::vector<std::uint8_t> head;
    std::size_t skip = 0;
    bool setUp = false;
    bool little = true;

    std::uint32_t word(std::size_t at, int bytes) const {
        std::uint32_t v = 0;
        for (int i = 0; i < bytes; ++i) {
            const std::uint32_t b = head[at + static_cast<std::size_t>(little ? i : bytes - 1 - i)];
            v |= b << (8 * i);
        }
        return v;
    }

    // Answers how many requests began in these bytes.
    long feed(const std::uint8_t* p, std::size_t n) {
        long started = 0;
        while (n > 0) {
            if (skip > 0) {
                const std::size_t k = std::min(skip, n);
                skip -= k, p += k, n -= k;
                continue;
            }
            head.push_back(*p++), --n;
            if (!setUp) {
                if (head.size() < 12) continue;
                little = head[0] == 'l';
                const auto pad = [](std::uint32_t v) { return (v + 3) & ~3u; };
                skip = pad(word(6, 2)) + pad(word(8, 2));
                setUp = true;
                head.clear();
                continue;
            }
            if (head.size() < 4) continue;
            std::uint32_t units = word(2, 2);
            if (units == 0) {
                if (head.size() < 8) continue;
                units = word(4, 4);
            }
            ++started;
            skip = std::size_t(units) * 4 - head.size();
            head.clear();
        }
        return started;
    }
};

}  // namespace

XRequestCounter::XRequestCounter(const QString& display) {
    target_ = kSocketDir + display.mid(1).toStdString();
    for (int n = 90; n < 200 && listener_ < 0; ++n) {
        const std::string path = kSocketDir + std::to_string(n);
        // The display number is ours by its lock file, as an X server's is: an Xvfb started
        // meanwhile (by tests, say) picks another one instead of taking our socket's place.
        const std::string lock = "/tmp/.X" + std::to_string(n) + "-lock";
        const int lockFd = open(lock.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0444);
        if (lockFd < 0) continue;
        const std::string pid = std::to_string(getpid());
        const std::string text = std::string(10 - std::min<std::size_t>(10, pid.size()), ' ') + pid + "\n";
        const bool locked = write(lockFd, text.data(), text.size()) == ssize_t(text.size());
        close(lockFd);
        unlink(path.c_str());  // a socket left by a server that is gone with its lock
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_un a = addressOf(path);
        if (locked && bind(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) == 0 && listen(fd, 8) == 0) {
            listener_ = fd, number_ = n, path_ = path, lock_ = lock;
        } else {
            close(fd);
            unlink(lock.c_str());
        }
    }
    if (listener_ < 0 || pipe(wake_) != 0) return;
    thread_ = std::thread([this] { run(); });
}

XRequestCounter::~XRequestCounter() {
    if (thread_.joinable()) {
        const char c = 0;
        (void)!write(wake_[1], &c, 1);
        thread_.join();
    }
    for (int fd : {listener_, wake_[0], wake_[1]})
        if (fd >= 0) close(fd);
    if (!path_.empty()) unlink(path_.c_str());
    if (!lock_.empty()) unlink(lock_.c_str());
}

void XRequestCounter::run() {
    struct Pair {
        int client, server;
        Framer framer;
    };
    std::vector<Pair> pairs;
    std::uint8_t buf[65536];
    for (;;) {
        std::vector<pollfd> fds{{wake_[0], POLLIN, 0}, {listener_, POLLIN, 0}};
        for (const Pair& p : pairs) {
            fds.push_back({p.client, POLLIN, 0});
            fds.push_back({p.server, POLLIN, 0});
        }
        if (poll(fds.data(), fds.size(), -1) < 0) continue;
        if (fds[0].revents) break;
        if (fds[1].revents & POLLIN) {
            const int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            const int server = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            const sockaddr_un a = addressOf(target_);
            if (client >= 0 && connect(server, reinterpret_cast<const sockaddr*>(&a), sizeof a) == 0) {
                pairs.push_back({client, server, {}});
            } else {
                close(client), close(server);
            }
            continue;  // the poll list changed
        }
        for (std::size_t i = 0; i < pairs.size(); ++i) {
            Pair& p = pairs[i];
            bool closed = false;
            for (const bool fromClient : {true, false}) {
                if (!(fds[2 + 2 * i + (fromClient ? 0 : 1)].revents & (POLLIN | POLLHUP | POLLERR))) continue;
                const ssize_t n = read(fromClient ? p.client : p.server, buf, sizeof buf);
                if (n <= 0) {
                    closed = true;
                    break;
                }
                if (fromClient) requests_ += p.framer.feed(buf, std::size_t(n));
                for (ssize_t sent = 0; sent < n;) {
                    // A client that went away must not end the bench with SIGPIPE.
                    const ssize_t w = send(fromClient ? p.server : p.client, buf + sent,
                                           std::size_t(n - sent), MSG_NOSIGNAL);
                    if (w <= 0) {
                        closed = true;
                        break;
                    }
                    sent += w;
                }
            }
            if (closed) {
                close(p.client), close(p.server);
                p.client = p.server = -1;
            }
        }
        std::erase_if(pairs, [](const Pair& p) { return p.client < 0; });
    }
    for (const Pair& p : pairs) close(p.client), close(p.server);
}

}  // namespace corvi::bench
