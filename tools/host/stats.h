// Timing of one generation, printed with --stats.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace cli {

class StreamStats {
public:
    using Clock = std::chrono::steady_clock;

    void Start() { start_ = Clock::now(); }
    void Piece() {
        if (pieces_++ == 0) first_ = Clock::now();
    }
    void Finish() { end_ = Clock::now(); }

    // Tokens are counted as streamed pieces: the runtime hands over one piece
    // per generated token, except that it holds back pieces that would split a
    // character and may merge them into a later one.
    std::string Summary() const;

private:
    Clock::time_point start_, first_, end_;
    size_t pieces_ = 0;
};

// "N s of audio in M s (K x real time)".
std::string TranscriptionSummary(double audioSeconds, double elapsedSeconds);

}  // namespace cli
