// The library's side of the peer comparison: a C host that loads one model
// through the library and then runs one timed job per line of standard input,
// answering each with one JSON line. bench/peers.py keeps it and a peer engine's
// worker loaded side by side and hands them jobs in turns, so that each pair
// of measurements is seconds apart on a machine whose load keeps changing.
//
//   velmora-turns --library SO --llm DIR     jobs: "generate N PROMPT", "tokenize TEXT"
//   velmora-turns --library SO --whisper DIR jobs: "transcribe FILE.f32"
#include <dlfcn.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "json_text.h"
#include "raw_samples.h"
#include "openvino_bindings.h"

namespace {

using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point from, Clock::time_point to) { return std::chrono::duration<double>(to - from).count(); }

std::string lastError;
void OnLog(const char*) {}
void OnError(const char* message) { lastError = message; }

[[noreturn]] void Fail(const char* what) {
    std::fprintf(stderr, "velmora-turns: %s failed: %s\n", what, lastError.c_str());
    std::exit(1);
}

// Pieces are kept so that the text can be compared with the peer's; appending
// is all the host function does besides taking the first piece's time.
Clock::time_point firstPiece;
std::string streamed;
long pieces = 0;
int OnPiece(char* piece) {
    if (pieces++ == 0) firstPiece = Clock::now();
    streamed += piece;
    return 0;
}

void Llm(const LlmApiBase* api, const std::string& model) {
    const HostCallbacks callbacks = {OnLog, OnError};
    void* handle = nullptr;
    if (api->InitModel(model.c_str(), DEVICE_CPU, 512, &handle, &callbacks) != 0) Fail("InitModel");
    // Greedy and exactly N tokens, as the peer is run.
    if (api->SetConfigProperty(handle, "ignore_eos", "true") != 0) Fail("ignore_eos");
    if (api->SetConfigProperty(handle, "do_sample", "false") != 0) Fail("do_sample");
    std::printf("{\"ready\":true}\n");
    std::fflush(stdout);
    std::string line;
    while (std::getline(std::cin, line)) {
        std::istringstream job(line);
        std::string verb;
        job >> verb;
        if (verb == "generate") {
            std::string tokens, prompt;
            job >> tokens;
            std::getline(job >> std::ws, prompt);
            if (api->SetConfigProperty(handle, "max_new_tokens", tokens.c_str()) != 0) Fail("max_new_tokens");
            pieces = 0;
            streamed.clear();
            const auto start = Clock::now();
            if (api->StreamModel(handle, prompt.data(), OnPiece) != 0) Fail("StreamModel");
            const auto end = Clock::now();
            std::printf("{\"s\":%.6f,\"first_s\":%.6f,\"text\":%s}\n", Seconds(start, end),
                        Seconds(start, firstPiece), Json(streamed).c_str());
        } else if (verb == "tokenize") {
            std::string text;
            std::getline(job >> std::ws, text);
            int64_t* ids = nullptr;
            size_t count = 0;
            if (api->Tokenize(handle, text.c_str(), &ids, &count) != 0) Fail("Tokenize");
            std::string list;
            for (size_t i = 0; i < count; ++i) list += (i ? "," : "") + std::to_string(ids[i]);
            api->FreeTokens(ids);
            std::printf("{\"ids\":[%s]}\n", list.c_str());
        } else {
            Fail(("job " + verb).c_str());
        }
        std::fflush(stdout);
    }
    api->DestroyModel(handle);
}

void Whisper(const WhisperApiBase* api, const std::string& model) {
    const HostCallbacks callbacks = {OnLog, OnError};
    void* handle = nullptr;
    if (api->InitModel(model.c_str(), DEVICE_CPU, &handle, &callbacks) != 0) Fail("Whisper InitModel");
    // The peers are told the language too, so no engine spends a pass detecting it.
    if (api->SetConfigProperty(handle, "language", "<|en|>") != 0) Fail("language");
    std::printf("{\"ready\":true}\n");
    std::fflush(stdout);
    std::string line;
    while (std::getline(std::cin, line)) {
        std::istringstream job(line);
        std::string verb, path;
        job >> verb;
        std::getline(job >> std::ws, path);
        if (verb != "transcribe") Fail(("job " + verb).c_str());
        const std::vector<float> samples = ReadSamples(path);
        char* text = nullptr;
        const auto start = Clock::now();
        if (api->QueryModel(handle, samples.data(), static_cast<int32_t>(samples.size()), &text) != 0)
            Fail("Whisper QueryModel");
        const double seconds = Seconds(start, Clock::now());
        std::printf("{\"s\":%.6f,\"audio_s\":%.6f,\"text\":%s}\n", seconds, samples.size() / 16000.0,
                    Json(text).c_str());
        api->FreeQueryResult(text);
        std::fflush(stdout);
    }
    api->DestroyModel(handle);
}

}  // namespace

int main(int argc, char** argv) {
    std::string library, llm, whisper;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string arg = argv[i];
        if (arg == "--library") library = argv[i + 1];
        else if (arg == "--llm") llm = argv[i + 1];
        else if (arg == "--whisper") whisper = argv[i + 1];
    }
    if (library.empty() || llm.empty() == whisper.empty()) {
        std::fprintf(stderr, "usage: velmora-turns --library SO (--llm DIR | --whisper DIR)\n");
        return 2;
    }
    void* lib = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (lib == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    if (!llm.empty()) Llm(reinterpret_cast<const LlmApiBase* (*)()>(dlsym(lib, "GetLlmApiBase"))(), llm);
    else Whisper(reinterpret_cast<const WhisperApiBase* (*)()>(dlsym(lib, "GetWhisperApiBase"))(), whisper);
    return 0;
}
