// The C-host side of the benchmark: loads the library with dlopen as any host
// does and prints one JSON object of measurements on stdout. The Python driver
// (bench/run.py) runs it in turns with the direct-runtime worker.
//
//   velmora-bench --library SO --model DIR --tokens N --reps K [--prompt TEXT]
//                 [--micro-scale F] [--whisper-model DIR --audio FILE.f32]
#include <dlfcn.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "json_text.h"
#include "raw_samples.h"
#include "openvino_bindings.h"

namespace {

using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point from, Clock::time_point to) { return std::chrono::duration<double>(to - from).count(); }

// Resident set size in bytes, as the kernel reports it for this process.
long ResidentBytes() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6) * 1024L;
    return -1;
}

std::string JsonList(const std::vector<double>& values) {
    std::ostringstream out;
    out.precision(9);
    out << "[";
    for (size_t i = 0; i < values.size(); ++i) out << (i ? "," : "") << values[i];
    return out.str() + "]";
}

std::string lastError;
void OnLog(const char*) {}
void OnError(const char* message) {
    lastError = message;
    std::fprintf(stderr, "library error: %s\n", message);
}

[[noreturn]] void Fail(const char* what) {
    std::fprintf(stderr, "velmora-bench: %s failed: %s\n", what, lastError.c_str());
    std::exit(1);
}

// The do-nothing host function, plus the one timestamp the throughput and
// first-piece figures need. Counting is a single increment.
Clock::time_point firstPiece;
long pieces = 0;
int NoOpPiece(char*) {
    if (pieces++ == 0) firstPiece = Clock::now();
    return 0;
}

// Per-call cost of `call`: `batches` timed batches of `perBatch` calls each.
template <class Call>
std::vector<double> PerCallMicros(int batches, int perBatch, Call&& call) {
    std::vector<double> out;
    for (int b = 0; b < batches; ++b) {
        const auto start = Clock::now();
        for (int i = 0; i < perBatch; ++i) call();
        out.push_back(Seconds(start, Clock::now()) * 1e6 / perBatch);
    }
    return out;
}

struct Options {
    std::string library, model, prompt = "The three primary colors are", whisperModel, audio;
    int tokens = 128, reps = 2, shortReps = 10;
    double microScale = 1.0;
};

}  // namespace

int main(int argc, char** argv) {
    Options o;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string arg = argv[i], value = argv[i + 1];
        if (arg == "--library") o.library = value;
        else if (arg == "--model") o.model = value;
        else if (arg == "--prompt") o.prompt = value;
        else if (arg == "--tokens") o.tokens = std::atoi(value.c_str());
        else if (arg == "--reps") o.reps = std::atoi(value.c_str());
        else if (arg == "--short-reps") o.shortReps = std::atoi(value.c_str());
        else if (arg == "--micro-scale") o.microScale = std::atof(value.c_str());
        else if (arg == "--whisper-model") o.whisperModel = value;
        else if (arg == "--audio") o.audio = value;
        else {
            std::fprintf(stderr, "velmora-bench: unknown option %s\n", arg.c_str());
            return 2;
        }
    }
    const long rssStart = ResidentBytes();
    void* lib = dlopen(o.library.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (lib == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    const auto* llm = reinterpret_cast<const LlmApiBase* (*)()>(dlsym(lib, "GetLlmApiBase"))();
    const auto* whisper = reinterpret_cast<const WhisperApiBase* (*)()>(dlsym(lib, "GetWhisperApiBase"))();
    const HostCallbacks callbacks = {OnLog, OnError};

    // Init: the first InitModel also starts the interpreter and imports the runtime.
    void* handle = nullptr;
    auto start = Clock::now();
    if (llm->InitModel(o.model.c_str(), DEVICE_CPU, o.tokens, &handle, &callbacks) != 0) Fail("InitModel");
    const double initSeconds = Seconds(start, Clock::now());
    const long rssAfterInit = ResidentBytes();

    if (llm->SetConfigProperty(handle, "ignore_eos", "true") != 0) Fail("SetConfigProperty(ignore_eos)");
    if (llm->SetConfigProperty(handle, "do_sample", "false") != 0) Fail("SetConfigProperty(do_sample)");
    // Warm-up: the runtime's first generation pays one-off costs on either path.
    llm->SetConfigProperty(handle, "max_new_tokens", "8");
    pieces = 0;
    if (llm->StreamModel(handle, const_cast<char*>(o.prompt.c_str()), NoOpPiece) != 0) Fail("StreamModel");
    const std::string tokens = std::to_string(o.tokens);
    llm->SetConfigProperty(handle, "max_new_tokens", tokens.c_str());

    std::vector<double> streamSeconds, firstPieceSeconds, querySeconds;
    long streamPieces = 0;
    std::string queryText;
    for (int rep = 0; rep < o.reps; ++rep) {
        pieces = 0;
        start = Clock::now();
        if (llm->StreamModel(handle, const_cast<char*>(o.prompt.c_str()), NoOpPiece) != 0) Fail("StreamModel");
        const auto end = Clock::now();
        streamSeconds.push_back(Seconds(start, end));
        firstPieceSeconds.push_back(Seconds(start, firstPiece));
        streamPieces = pieces;

        char* text = nullptr;
        start = Clock::now();
        if (llm->QueryModel(handle, o.prompt.c_str(), &text) != 0) Fail("QueryModel");
        querySeconds.push_back(Seconds(start, Clock::now()));
        queryText = text;
        llm->FreeQueryResult(text);
    }

    // Time to first piece again, on many short generations: one long run gives one noisy sample.
    std::vector<double> shortFirstPieceSeconds;
    llm->SetConfigProperty(handle, "max_new_tokens", "2");
    for (int rep = 0; rep < o.shortReps; ++rep) {
        pieces = 0;
        start = Clock::now();
        if (llm->StreamModel(handle, const_cast<char*>(o.prompt.c_str()), NoOpPiece) != 0) Fail("StreamModel");
        shortFirstPieceSeconds.push_back(Seconds(start, firstPiece));
    }

    // Micro-costs, each in batches so that the spread shows.
    const auto scaled = [&](int n) { return std::max(1, static_cast<int>(n * o.microScale)); };
    const std::vector<double> setMicros = PerCallMicros(50, scaled(2000), [&] {
        if (llm->SetConfigProperty(handle, "temperature", "0.5") != 0) Fail("SetConfigProperty");
    });
    const std::vector<double> getMicros = PerCallMicros(50, scaled(2000), [&] {
        char* value = nullptr;
        if (llm->GetConfigProperty(handle, "max_new_tokens", &value) != 0) Fail("GetConfigProperty");
        llm->FreeConfigProperty(value);
    });
    const std::vector<double> tokenizeMicros = PerCallMicros(20, scaled(50), [&] {
        int64_t* ids = nullptr;
        size_t count = 0;
        if (llm->Tokenize(handle, "Hello world", &ids, &count) != 0) Fail("Tokenize");
        llm->FreeTokens(ids);
    });
    const std::vector<double> cancelMicros = PerCallMicros(50, scaled(20000), [&] {
        if (llm->CancelModel(handle) != 0) Fail("CancelModel");
    });
    llm->DestroyModel(handle);

    std::vector<double> whisperSeconds;
    std::string whisperText;
    double audioSeconds = 0, whisperInitSeconds = 0;
    if (!o.whisperModel.empty()) {
        const std::vector<float> samples = ReadSamples(o.audio);
        audioSeconds = samples.size() / 16000.0;
        void* w = nullptr;
        start = Clock::now();
        if (whisper->InitModel(o.whisperModel.c_str(), DEVICE_CPU, &w, &callbacks) != 0) Fail("Whisper InitModel");
        whisperInitSeconds = Seconds(start, Clock::now());
        for (int rep = -1; rep < o.reps; ++rep) {  // rep -1 is the warm-up, on two seconds
            char* text = nullptr;
            const size_t count = rep < 0 ? std::min<size_t>(samples.size(), 32000) : samples.size();
            start = Clock::now();
            if (whisper->QueryModel(w, samples.data(), static_cast<int32_t>(count), &text) != 0)
                Fail("Whisper QueryModel");
            if (rep >= 0) whisperSeconds.push_back(Seconds(start, Clock::now()));
            whisperText = text;
            whisper->FreeQueryResult(text);
        }
        whisper->DestroyModel(w);
    }

    std::printf("{\"path\":\"c_host\",\"init_s\":%.6f,\"rss_start\":%ld,\"rss_after_init\":%ld,"
                "\"stream_s\":%s,\"first_piece_s\":%s,\"short_first_piece_s\":%s,\"stream_pieces\":%ld,\"query_s\":%s,\"text\":%s,"
                "\"set_us\":%s,\"get_us\":%s,\"tokenize_us\":%s,\"cancel_us\":%s,"
                "\"whisper_init_s\":%.6f,\"audio_s\":%.6f,\"whisper_s\":%s,\"whisper_text\":%s}\n",
                initSeconds, rssStart, rssAfterInit, JsonList(streamSeconds).c_str(),
                JsonList(firstPieceSeconds).c_str(), JsonList(shortFirstPieceSeconds).c_str(), streamPieces, JsonList(querySeconds).c_str(),
                Json(queryText).c_str(), JsonList(setMicros).c_str(), JsonList(getMicros).c_str(),
                JsonList(tokenizeMicros).c_str(), JsonList(cancelMicros).c_str(), whisperInitSeconds, audioSeconds,
                JsonList(whisperSeconds).c_str(), Json(whisperText).c_str());
    return 0;
}
