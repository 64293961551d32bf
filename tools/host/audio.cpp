#include "audio.h"

#include <samplerate.h>
#include <sndfile.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

namespace cli {
namespace {

struct SndfileCloser {
    void operator()(SNDFILE* file) const { sf_close(file); }
};

std::vector<float> Downmix(const std::vector<float>& interleaved, int channels) {
    if (channels == 1) return interleaved;
    std::vector<float> mono(interleaved.size() / channels);
    for (size_t frame = 0; frame < mono.size(); ++frame) {
        float sum = 0;
        for (int c = 0; c < channels; ++c) sum += interleaved[frame * channels + c];
        mono[frame] = sum / channels;
    }
    return mono;
}

bool Resample(std::vector<float>& samples, int rate, std::string& error) {
    if (rate == kSpeechRate || samples.empty()) return true;
    const double ratio = static_cast<double>(kSpeechRate) / rate;
    std::vector<float> out(static_cast<size_t>(std::ceil(samples.size() * ratio)) + 16);
    SRC_DATA data = {};
    data.data_in = samples.data();
    data.input_frames = static_cast<long>(samples.size());
    data.data_out = out.data();
    data.output_frames = static_cast<long>(out.size());
    data.src_ratio = ratio;
    if (const int failure = src_simple(&data, SRC_SINC_MEDIUM_QUALITY, 1)) {
        error = src_strerror(failure);
        return false;
    }
    out.resize(static_cast<size_t>(data.output_frames_gen));
    samples = std::move(out);
    return true;
}

}  // namespace

bool ReadSpeech(const std::string& path, std::vector<float>& samples, std::string& error) {
    SF_INFO info = {};
    std::unique_ptr<SNDFILE, SndfileCloser> file(sf_open(path.c_str(), SFM_READ, &info));
    if (!file) {
        // libsndfile blames a missing file for any format it cannot open.
        std::error_code failure;
        const std::filesystem::file_status status = std::filesystem::status(path, failure);
        if (!std::filesystem::exists(status))
            error = "no such file";
        else if (std::filesystem::is_directory(status))
            error = "it is a directory";
        else if (!std::filesystem::is_regular_file(status))
            error = sf_version_string() + std::string(" cannot decode what it holds (not audio it knows)");
        else if (FILE* readable = std::fopen(path.c_str(), "rb"))
            std::fclose(readable), error = std::string("the file exists, but ") + sf_version_string() +
                                           " cannot decode it (not audio in a format it knows, or damaged)";
        else
            error = "cannot open the file: " + std::string(std::strerror(errno));
        return false;
    }
    if (info.channels < 1 || info.samplerate < 1) {
        error = "no audio channels";
        return false;
    }
    // Frame counts are unreliable for some formats (MP3): read until the end.
    std::vector<float> interleaved;
    std::vector<float> block(4096 * static_cast<size_t>(info.channels));
    sf_count_t frames = 0;
    while ((frames = sf_readf_float(file.get(), block.data(), 4096)) > 0)
        interleaved.insert(interleaved.end(), block.begin(), block.begin() + frames * info.channels);
    if (sf_error(file.get()) != SF_ERR_NO_ERROR) {
        error = sf_strerror(file.get());
        return false;
    }
    samples = Downmix(interleaved, info.channels);
    return Resample(samples, info.samplerate, error);
}

}  // namespace cli
