#include "interrupt.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <mutex>

#include "commands.h"

namespace cli {
namespace {

int pipeFds[2] = {-1, -1};
constexpr char kInterrupt = 'i', kQuit = 'q';

std::mutex mutex;  // guards the two below
std::function<void()> armed;
bool fired = false;

void OnSigint(int) {
    const int saved = errno;
    const char byte = kInterrupt;
    [[maybe_unused]] ssize_t written = write(pipeFds[1], &byte, 1);
    errno = saved;
}

[[noreturn]] void ExitInterrupted() {
    std::fflush(stdout);
    std::fputs("\ninterrupted\n", stderr);
    _exit(kInterrupted);
}

}  // namespace

InterruptWatcher::InterruptWatcher() {
    if (pipe2(pipeFds, O_CLOEXEC) != 0) return;  // then Ctrl-C keeps its default
    struct sigaction action = {};
    action.sa_handler = OnSigint;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    thread_ = std::thread(&InterruptWatcher::Watch, this);
}

InterruptWatcher::~InterruptWatcher() {
    if (!thread_.joinable()) return;
    signal(SIGINT, SIG_DFL);
    const char byte = kQuit;
    [[maybe_unused]] ssize_t written = write(pipeFds[1], &byte, 1);
    thread_.join();
}

void InterruptWatcher::Watch() {
    char byte = 0;
    for (;;) {
        const ssize_t n = read(pipeFds[0], &byte, 1);
        if (n < 0 && errno == EINTR) continue;
        if (n != 1 || byte == kQuit) return;
        std::lock_guard<std::mutex> lock(mutex);
        if (!armed || fired) ExitInterrupted();
        fired = true;
        armed();
    }
}

CancelOnInterrupt::CancelOnInterrupt(std::function<void()> cancel) {
    std::lock_guard<std::mutex> lock(mutex);
    armed = std::move(cancel);
    fired = false;
}

CancelOnInterrupt::~CancelOnInterrupt() {
    std::lock_guard<std::mutex> lock(mutex);
    armed = nullptr;
}

bool CancelOnInterrupt::Fired() const {
    std::lock_guard<std::mutex> lock(mutex);
    return fired;
}

}  // namespace cli
