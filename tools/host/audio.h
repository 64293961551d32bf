// Audio files in, 16 kHz mono float samples out, as the Whisper table wants.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace cli {

constexpr int kSpeechRate = 16000;
// The runtime's feature extractor pads by reflection and needs more than 200 samples.
constexpr size_t kFewestSamples = 201;

// Reads any format libsndfile knows (WAV, FLAC, Ogg, MP3, AIFF, ...), mixes the
// channels down to one and resamples to kSpeechRate. On failure returns false
// with `error` set.
bool ReadSpeech(const std::string& path, std::vector<float>& samples, std::string& error);

}  // namespace cli
