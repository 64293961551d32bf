// Raw 32-bit float samples from a file, as bench/speech.sh writes them, for the benchmark hosts.
#pragma once

#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

inline std::vector<float> ReadSamples(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::vector<float> samples(bytes.size() / sizeof(float));
    std::memcpy(samples.data(), bytes.data(), samples.size() * sizeof(float));
    return samples;
}
