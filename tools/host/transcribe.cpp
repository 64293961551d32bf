// transcribe: an audio file through the Whisper table.
#include <chrono>
#include <climits>
#include <cstdio>
#include <string>
#include <strings.h>
#include <vector>

#include "audio.h"
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
    return strcasecmp(timestamps.c_str(), "true") != 0 || (limit != "0" && limit != "1");
}

}  // namespace

int RunTranscribe(const Options& options, Library& library) {
    const WhisperApiBase& api = library.whisper();
    if (options.words.size() != (options.listSettings ? 0 : 1))
        return UsageError("transcribe needs one audio file");

    if (!EndsInTheRuntime(options))
        return UsageError("return_timestamps=true needs max_new_tokens of 2 or more: with fewer the runtime never "
                          "ends the transcription");

    std::vector<float> samples;
    std::string error;
    if (!options.listSettings && !ReadSpeech(options.words[0], samples, error))
        return Progress::Note(("error: cannot read audio '" + options.words[0] + "': " + error).c_str()), kFailed;
    if (samples.size() > INT32_MAX)
        return Progress::Note("error: the audio is too long for one transcription"), kFailed;
    if (!options.listSettings && samples.size() < kFewestSamples)
        return Progress::Note(("error: cannot transcribe '" + options.words[0] + "': it holds " +
                               std::to_string(samples.size()) + " samples at 16 kHz, fewer than the " +
                               std::to_string(kFewestSamples) + " the model needs")
                                  .c_str()),
               kFailed;

    const Model<WhisperApiBase> model(api, options.model, options.device, [&](void** handle) {
        return api.InitModel(options.model.c_str(), options.device, handle, &Library::Callbacks());
    });
    void* const handle = model.get();
    if (handle == nullptr || !ApplySettings(api, handle, options.settings)) return kFailed;
    if (options.listSettings) return ListSettings(api, handle, velmora::whisper::kSettings), kOk;

    char* text = nullptr;
    CancelOnInterrupt cancel([&api, handle] {
        // The runtime reports nothing while it hears no speech, and a cancel is
        // seen only when it next reports text.
        Progress::Note("stopping at the next text the runtime reports (at the end, for audio without speech)");
        api.CancelModel(handle);
    });
    const auto start = std::chrono::steady_clock::now();
    if (api.QueryModel(handle, samples.data(), static_cast<int32_t>(samples.size()), &text) != 0)
        return Fail("cannot transcribe '" + options.words[0] + "'");
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("%s\n", text);
    std::fflush(stdout);
    api.FreeQueryResult(text);
    if (options.stats)
        Progress::Note(TranscriptionSummary(static_cast<double>(samples.size()) / kSpeechRate, elapsed).c_str());
    if (!cancel.Fired()) return kOk;
    Progress::Note("interrupted");
    return kInterrupted;
}

}  // namespace cli
