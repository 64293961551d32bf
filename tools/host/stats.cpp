#include "stats.h"

#include <cstdio>

namespace cli {
namespace {

double Seconds(StreamStats::Clock::duration d) { return std::chrono::duration<double>(d).count(); }

}  // namespace

std::string StreamStats::Summary() const {
    char text[256];
    if (pieces_ == 0) {
        std::snprintf(text, sizeof text, "stats: 0 tokens in %.2f s", Seconds(end_ - start_));
        return text;
    }
    // The rate leaves out the prompt's processing, which the first piece waits for.
    const double decode = Seconds(end_ - first_);
    const double rate = pieces_ > 1 && decode > 0 ? (pieces_ - 1) / decode : 0.0;
    std::snprintf(text, sizeof text,
                  "stats: %zu tokens (streamed pieces) in %.2f s, first piece after %.0f ms, %.1f tokens/s",
                  pieces_, Seconds(end_ - start_), 1000 * Seconds(first_ - start_), rate);
    return text;
}

std::string TranscriptionSummary(double audioSeconds, double elapsedSeconds) {
    char text[160];
    std::snprintf(text, sizeof text, "stats: %.2f s of audio transcribed in %.2f s (%.1fx real time)",
                  audioSeconds, elapsedSeconds, elapsedSeconds > 0 ? audioSeconds / elapsedSeconds : 0.0);
    return text;
}

}  // namespace cli
