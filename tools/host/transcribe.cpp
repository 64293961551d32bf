// transcribe: an audio file through the Whisper table.
#include <chrono>
#include <climits>
#include <cstdio>
#include <string>
#include <strings.h>
#include <vector>

#include "audio.h"
#include "core/value_text.h"
#include "commands.h"
#include "interrupt.h"
#include "progress.h"
#include "report.h"
#include "whisper/whisper_settings.h"
#include "stats.h"

namespace cli {
namespace {

// Timestamps with fewer than two new tokens make the runtime decode the window again and again without ever
// reporting text, so the transcription would never end and no Ctrl-C would reach it. The model's own
// defaults never ask for that, so only the --set values need a look.
bool EndsInTheRuntime(const Options& options) {
    std::string timestamps, limit;
    for (const auto& [name, value] : options.settings) {
        if (name == "return_timestamps") timestamps = value;
        if (name == "max_new_tokens") limit = value;
    }
    if (strcasecmp(timestamps.c_str(), "true") != 0 || limit.empty()) return true;
    try {  // read as the library reads it: " 01" and "+1x" are 1
        const int32_t tokens = velmora::ParseInteger(limit, velmora::IntegerParse::Stoi);
        return tokens != 0 && tokens != 1;
    } catch (const std::exception&) {
        return true;  // refused when set
    }
}

// Each file read before the model loads, so that a bad one costs nothing; false (reported) at the first.
bool ReadAll(const std::vector<std::string>& paths, std::vector<std::vector<float>>& audio) {
    for (const std::string& path : paths) {
        std::vector<float>& samples = audio.emplace_back();
        std::string error;
        if (!ReadSpeech(path, samples, error)) error = "cannot read audio '" + path + "': " + error;
        else if (samples.size() > INT32_MAX) error = "the audio '" + path + "' is too long for one transcription";
        else if (samples.size() < kFewestSamples)
            error = "cannot transcribe '" + path + "': it holds " + std::to_string(samples.size()) +
                    " samples at 16 kHz, fewer than the " + std::to_string(kFewestSamples) + " the model needs";
        if (!error.empty()) return Progress::Note(("error: " + error).c_str()), false;
    }
    return true;
}

}  // namespace

int RunTranscribe(const Options& options, Library& library) {
    const WhisperApiBase& api = library.whisper();
    if (options.listSettings ? !options.words.empty() : options.words.empty())
        return UsageError(options.listSettings ? "--list-settings takes no audio file" : "transcribe needs an audio file");

    if (!EndsInTheRuntime(options))
        return UsageError("return_timestamps=true needs max_new_tokens of 2 or more: with fewer the runtime never "
                          "ends the transcription");

    std::vector<std::vector<float>> audio;
    if (!ReadAll(options.words, audio)) return kFailed;

    const Model<WhisperApiBase> model(api, options.model, options.device, [&](void** handle) {
        return api.InitModel(options.model.c_str(), options.device, handle, &Library::Callbacks());
    });
    void* const handle = model.get();
    if (handle == nullptr || !ApplySettings(api, handle, options.settings)) return kFailed;
    if (options.listSettings) return ListSettings(api, handle, velmora::whisper::kSettings), kOk;

    CancelOnInterrupt cancel([&api, handle] {
        // The runtime reports nothing while it hears no speech, and a cancel is
        // seen only when it next reports text.
        Progress::Note("stopping at the next text the runtime reports (at the end, for audio without speech)");
        api.CancelModel(handle);
    });
    for (size_t i = 0; i < audio.size() && !cancel.Fired(); ++i) {
        const std::string& path = options.words[i];
        char* text = nullptr;
        const auto start = std::chrono::steady_clock::now();
        if (api.QueryModel(handle, audio[i].data(), static_cast<int32_t>(audio[i].size()), &text) != 0)
            return Fail("cannot transcribe '" + path + "'");
        const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (audio.size() > 1) std::printf("%s:", path.c_str());  // as grep names the file of each match
        std::printf("%s\n", text);
        std::fflush(stdout);
        api.FreeQueryResult(text);
        if (options.stats)
            Progress::Note(TranscriptionSummary(static_cast<double>(audio[i].size()) / kSpeechRate, elapsed).c_str());
    }
    if (!cancel.Fired()) return kOk;
    Progress::Note("interrupted");
    return kInterrupted;
}

}  // namespace cli
