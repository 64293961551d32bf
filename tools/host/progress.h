// Progress on stderr while a blocking slot (InitModel, CompileModel) runs.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace cli {

class Progress {
public:
    // On a terminal a side thread redraws "label  1.2 s" until the object ends;
    // elsewhere nothing is shown until Done, which prints a single line.
    explicit Progress(std::string label);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // Ends the display with "label: done in N s".
    void Done();
    // Ends the display, printing nothing.
    void Stop();

    // Prints one line on stderr without tearing a running display.
    static void Note(const char* line);

private:
    void Run();

    std::string label_;
    std::chrono::steady_clock::time_point start_;
    std::mutex mutex_;
    std::condition_variable stop_;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace cli
