// Ctrl-C. The signal handler only writes a byte to a pipe; a watcher thread
// reads it and cancels whatever generation is armed, from outside the thread
// that generates.
#pragma once

#include <functional>
#include <thread>

namespace cli {

// Installs the SIGINT handler and starts the watcher; one per process.
class InterruptWatcher {
public:
    InterruptWatcher();
    ~InterruptWatcher();
    InterruptWatcher(const InterruptWatcher&) = delete;
    InterruptWatcher& operator=(const InterruptWatcher&) = delete;

private:
    void Watch();
    std::thread thread_;
};

// While alive, Ctrl-C calls `cancel` once. Without one armed (a model still
// loading), or at a second Ctrl-C, the program flushes stdout and exits 130.
class CancelOnInterrupt {
public:
    explicit CancelOnInterrupt(std::function<void()> cancel);
    ~CancelOnInterrupt();
    CancelOnInterrupt(const CancelOnInterrupt&) = delete;
    CancelOnInterrupt& operator=(const CancelOnInterrupt&) = delete;

    // Whether Ctrl-C cancelled while this was armed.
    bool Fired() const;
};

}  // namespace cli
