// transcribe: an audio file through the Whisper table.
#include <chrono>
#include <climits>
#include <cstdio>
#include <vector>

#include "audio.h"
#include "commands.h"
#include "interrupt.h"
#include "progress.h"
#include "report.h"
#include "stats.h"

namespace cli {

int RunTranscribe(const Options& options, Library& library) {
    const WhisperApiBase& api = library.whisper();
    if (options.words.size() != 1) return UsageError("transcribe needs one audio file");

    std::vector<float> samples;
    std::string error;
    if (!ReadSpeech(options.words[0], samples, error)) {
        Progress::Note(("error: " + error).c_str());
        return kFailed;
    }
    if (samples.size() > INT32_MAX) {
        Progress::Note("error: the audio is too long for one transcription");
        return kFailed;
    }

    void* handle = nullptr;
    {
        Progress progress("loading " + options.model + " on " + DeviceLabel(options.device));
        if (api.InitModel(options.model.c_str(), options.device, &handle, &Library::Callbacks()) != 0)
            return kFailed;
        progress.Done();
    }
    struct Destroy {
        const WhisperApiBase& api;
        void* handle;
        ~Destroy() { api.DestroyModel(handle); }
    } destroy{api, handle};

    for (const auto& [name, value] : options.settings)
        if (!ApplySetting([&](const char* n, const char* v) { return api.SetConfigProperty(handle, n, v); },
                          name, value))
            return kFailed;

    char* text = nullptr;
    CancelOnInterrupt cancel([&api, handle] { api.CancelModel(handle); });
    const auto start = std::chrono::steady_clock::now();
    if (api.QueryModel(handle, samples.data(), static_cast<int32_t>(samples.size()), &text) != 0) return kFailed;
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
