#pragma once

namespace Tavrin::Veq::ClientBroker {

// An eventfd that a thread blocked in zmq_poll can watch, so that other threads can wake it.
class WakeSignal {
public:
    WakeSignal();
    ~WakeSignal();
    WakeSignal(const WakeSignal&) = delete;
    WakeSignal& operator=(const WakeSignal&) = delete;

    int Fd() const { return fd_; }
    void Raise();
    void Clear();

private:
    int fd_;
};

}  // namespace Tavrin::Veq::ClientBroker
