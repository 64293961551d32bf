#include "progress.h"

#include <unistd.h>

#include <cstdio>

namespace cli {
namespace {

// Guards stderr and the one display that may be running.
std::mutex outputMutex;
std::string activeLine;  // what the display last drew; empty when none

void ClearLine() {
    if (!activeLine.empty()) std::fputs("\r\033[K", stderr);
}

double Seconds(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

Progress::Progress(std::string label) : label_(std::move(label)), start_(std::chrono::steady_clock::now()) {
    if (isatty(STDERR_FILENO)) thread_ = std::thread(&Progress::Run, this);
}

Progress::~Progress() { Stop(); }

void Progress::Run() {
    static const char frames[] = "|/-\\";
    std::unique_lock<std::mutex> lock(mutex_);
    for (unsigned tick = 0; !stopping_; ++tick) {
        {
            std::lock_guard<std::mutex> out(outputMutex);
            char line[512];
            std::snprintf(line, sizeof line, "%c %s  %.1f s", frames[tick % 4], label_.c_str(), Seconds(start_));
            activeLine = line;
            std::fprintf(stderr, "\r\033[K%s", line);
            std::fflush(stderr);
        }
        stop_.wait_for(lock, std::chrono::milliseconds(100), [this] { return stopping_; });
    }
}

void Progress::Stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_) return;
        stopping_ = true;
    }
    stop_.notify_all();
    if (thread_.joinable()) thread_.join();
    std::lock_guard<std::mutex> out(outputMutex);
    ClearLine();
    activeLine.clear();
    std::fflush(stderr);
}

void Progress::Done() {
    Stop();
    std::lock_guard<std::mutex> out(outputMutex);
    std::fprintf(stderr, "%s: done in %.2f s\n", label_.c_str(), Seconds(start_));
}

void Progress::Note(const char* line) {
    std::lock_guard<std::mutex> out(outputMutex);
    ClearLine();
    std::fprintf(stderr, "%s\n", line);
    if (!activeLine.empty()) std::fputs(activeLine.c_str(), stderr);
    std::fflush(stderr);
}

}  // namespace cli
