// Runs every slot of both tables, with every release, in a loop of whole
// handle lifetimes, and prints the resident memory so growth can be judged:
//   leak_cycle LIBRARY MODELS_DIR [CYCLES]
// Exits non-zero if any slot answers other than expected. Under LeakSanitizer
// (the address build) the leaks themselves are reported at exit.
#include <dlfcn.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "llm/llm_settings.h"
#include "openvino_bindings.h"
#include "whisper/whisper_settings.h"

namespace {

int errorsSeen = 0;
void OnLog(const char*) {}
void OnError(const char*) { ++errorsSeen; }
const HostCallbacks callbacks = {OnLog, OnError};

int piecesSeen = 0;
int OnText(char* piece) {
    piecesSeen += piece != nullptr;
    return 0;
}

[[noreturn]] void Fail(const char* what, int line) {
    std::fprintf(stderr, "leak_cycle: %s failed (line %d)\n", what, line);
    std::exit(1);
}
#define EXPECT_OK(call) ((call) == 0 ? (void)0 : Fail(#call, __LINE__))

long ResidentKiB() {
    long pages = 0, resident = 0;
    FILE* statm = std::fopen("/proc/self/statm", "r");
    if (statm == nullptr || std::fscanf(statm, "%ld %ld", &pages, &resident) != 2) Fail("reading statm", __LINE__);
    std::fclose(statm);
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// Reads a setting and writes the same text back; a setting without a value
// (an unset language) fails the read with one message and is skipped.
template <class Api, class Row>
void RoundTrip(const Api& api, void* handle, const Row& row) {
    if (!row.byName) return;
    const char* name = row.name;
    char* text = nullptr;
    const int before = errorsSeen;
    if (api.GetConfigProperty(handle, name, &text) != 0) {
        if (errorsSeen != before + 1) Fail(name, __LINE__);
        return;
    }
    // A size above the 32-bit range reads back as a text the setter refuses.
    const int status = api.SetConfigProperty(handle, name, text);
    if (status != 0 && errorsSeen != before + 1) Fail(name, __LINE__);
    EXPECT_OK(api.FreeConfigProperty(text));
}

void LlmCycle(const LlmApiBase& llm, const std::string& dir) {
    void* handle = nullptr;
    EXPECT_OK(llm.InitModel(dir.c_str(), DEVICE_CPU, 8, &handle, &callbacks));
    char* text = nullptr;
    EXPECT_OK(llm.QueryModel(handle, "Once upon a time", &text));
    EXPECT_OK(llm.FreeQueryResult(text));
    char prompt[] = "Once upon a time";
    EXPECT_OK(llm.StreamModel(handle, prompt, OnText));
    for (const auto& row : velmora::llm::kSettings) RoundTrip(llm, handle, row);

    const char* stops[] = {"zebra", "aardvark", "zebra"};
    EXPECT_OK(llm.SetStopStrings(handle, stops, 3));
    char** strings = nullptr;
    size_t count = 0;
    EXPECT_OK(llm.GetStopStrings(handle, &strings, &count));
    if (count != 2) Fail("stop string count", __LINE__);
    EXPECT_OK(llm.FreeStopStrings(strings, count));
    const int64_t ids[] = {7, 3, 7};
    EXPECT_OK(llm.SetStopTokens(handle, ids, 3));
    int64_t* outIds = nullptr;
    EXPECT_OK(llm.GetStopTokens(handle, &outIds, &count));
    EXPECT_OK(llm.FreeStopTokens(outIds));
    EXPECT_OK(llm.SetStopTokens(handle, nullptr, 0));
    EXPECT_OK(llm.SetStopStrings(handle, nullptr, 0));
    EXPECT_OK(llm.Tokenize(handle, "Once upon a time", &outIds, &count));
    EXPECT_OK(llm.FreeTokens(outIds));

    // The failure paths build messages too.
    const int before = errorsSeen;
    if (llm.SetConfigProperty(handle, "no_such_setting", "1") != 1) Fail("unknown setting", __LINE__);
    if (llm.SetConfigProperty(handle, "top_k", "many") != 1) Fail("bad value", __LINE__);
    if (errorsSeen != before + 2) Fail("failure messages", __LINE__);
    EXPECT_OK(llm.CancelModel(handle));
    EXPECT_OK(llm.DestroyModel(handle));
}

void WhisperCycle(const WhisperApiBase& whisper, const std::string& dir, const std::vector<float>& audio) {
    void* handle = nullptr;
    EXPECT_OK(whisper.InitModel(dir.c_str(), DEVICE_CPU, &handle, &callbacks));
    for (const auto& row : velmora::whisper::kSettings) RoundTrip(whisper, handle, row);
    // The tiny model would otherwise decode to its maximum length.
    EXPECT_OK(whisper.SetConfigProperty(handle, "max_new_tokens", "8"));

    // The loaded lists (never empty for this model) are copied out and set back.
    LangIdPair* pairs = nullptr;
    size_t count = 0;
    EXPECT_OK(whisper.GetLangToId(handle, &pairs, &count));
    EXPECT_OK(whisper.SetLangToId(handle, pairs, count));
    for (size_t i = 0; i < count; ++i) EXPECT_OK(whisper.FreeConfigProperty(pairs[i].language));
    EXPECT_OK(whisper.FreeLangToId(pairs));
    int64_t* ids = nullptr;
    EXPECT_OK(whisper.GetSuppressTokens(handle, &ids, &count));
    EXPECT_OK(whisper.SetSuppressTokens(handle, ids, count));
    EXPECT_OK(whisper.FreeSuppressTokens(ids));
    EXPECT_OK(whisper.GetBeginSuppressTokens(handle, &ids, &count));
    EXPECT_OK(whisper.SetBeginSuppressTokens(handle, ids, count));
    EXPECT_OK(whisper.FreeBeginSuppressTokens(ids));

    char* text = nullptr;
    EXPECT_OK(whisper.QueryModel(handle, audio.data(), static_cast<int32_t>(audio.size()), &text));
    EXPECT_OK(whisper.FreeQueryResult(text));
    const int before = errorsSeen;
    if (whisper.QueryModel(handle, audio.data(), -1, &text) != 1) Fail("negative sample count", __LINE__);
    if (whisper.SetConfigProperty(handle, "max_length", "\xff") != 1) Fail("bad value", __LINE__);
    if (errorsSeen != before + 2) Fail("failure messages", __LINE__);
    EXPECT_OK(whisper.CancelModel(handle));
    EXPECT_OK(whisper.DestroyModel(handle));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s LIBRARY MODELS_DIR [CYCLES]\n", argv[0]);
        return 2;
    }
    const int cycles = argc > 3 ? std::atoi(argv[3]) : 300;
    void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) Fail(dlerror(), __LINE__);
    const auto& llm = *reinterpret_cast<const LlmApiBase* (*)()>(dlsym(library, "GetLlmApiBase"))();
    const auto& whisper = *reinterpret_cast<const WhisperApiBase* (*)()>(dlsym(library, "GetWhisperApiBase"))();
    const std::string models = argv[2];

    // One second of a 440 Hz tone at 16 kHz.
    std::vector<float> audio(16000);
    for (size_t i = 0; i < audio.size(); ++i) audio[i] = 0.3f * std::sin(2 * M_PI * 440 * i / 16000.0);

    std::printf("cycle resident_kib\n");
    long atTen = 0, last = 0;
    for (int cycle = 1; cycle <= cycles; ++cycle) {
        LlmCycle(llm, models + "/tiny-llm");
        WhisperCycle(whisper, models + "/tiny-whisper", audio);
        last = ResidentKiB();
        if (cycle == 10) atTen = last;
        if (cycle <= 10 || cycle % 25 == 0 || cycle == cycles) std::printf("%d %ld\n", cycle, last);
        std::fflush(stdout);
    }
    if (cycles > 20)
        std::printf("growth per cycle: %.1f KiB from cycle 10 to %d (%ld -> %ld KiB)\n",
                    double(last - atTen) / (cycles - 10), cycles, atTen, last);
    std::printf("streamed pieces: %d; failure messages: %d\n", piecesSeen, errorsSeen);
    return 0;
}
