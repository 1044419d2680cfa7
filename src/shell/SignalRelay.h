#pragma once

#include <QObject>
#include <QSocketNotifier>
#include <initializer_list>

namespace corvi {

// Turns SIGTERM/SIGINT into a Qt signal on the main thread. The handler only writes the
// signal number into a pipe (async-signal-safe); the read end wakes the event loop.
class SignalRelay : public QObject {
    Q_OBJECT
  public:
    explicit SignalRelay(std::initializer_list<int> signums, QObject* parent = nullptr);
    ~SignalRelay() override;

  signals:
    void received(int signum);

  private:
    void drain();

    int fds_[2] = {-1, -1};
    QSocketNotifier* notifier_ = nullptr;
};

}  // namespace corvi
