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

    // Installs the handlers before there is an event loop to wake: a signal that arrives
    // while the agent starts waits in the pipe for the relay made later.
    static void catchEarly(std::initializer_list<int> signums);

  signals:
    void received(int signum);

  private:
    void drain();

    QSocketNotifier* notifier_ = nullptr;
};

}  // namespace corvi
