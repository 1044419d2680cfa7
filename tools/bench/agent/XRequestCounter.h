#pragma once

#include <QString>
#include <atomic>
#include <thread>

namespace corvi::bench {

// A display of its own that passes every byte to a real X server and counts the requests its
// clients send: the X server keeps no such count per client, and a program's requests are
// what it costs the server.
class XRequestCounter {
  public:
    explicit XRequestCounter(const QString& display);  // the real one, ":N"
    ~XRequestCounter();
    XRequestCounter(const XRequestCounter&) = delete;
    XRequestCounter& operator=(const XRequestCounter&) = delete;

    bool ok() const { return listener_ >= 0; }
    QString display() const { return QStringLiteral(":%1").arg(number_); }
    long requests() const { return requests_.load(); }

  private:
    void run();

    std::string target_;
    std::string path_;
    std::string lock_;
    int number_ = -1;
    int listener_ = -1;
    int wake_[2] = {-1, -1};
    std::atomic<long> requests_{0};
    std::thread thread_;
};

}  // namespace corvi::bench
