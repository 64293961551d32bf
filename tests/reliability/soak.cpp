// A host that runs the library for a long time the way applications do: one
// process, both families, a random mix of every slot, LLM handles destroyed
// and recreated, one Whisper handle reused, cancels from another thread at
// random moments and hosts that stop a stream from onText.
//   soak LIBRARY MODELS_DIR SPEECH_F32 SECONDS [SEED [STALL_SECONDS]]
// SPEECH_F32 is raw 16 kHz mono float32 speech ("none": LLM only). Fails (exit 1) on any
// unexpected status, (exit 3) when no slot returns for STALL_SECONDS (a wedged
// generation: the threads' stacks are printed first), and (exit 4) when the
// resident memory keeps growing after warm-up.
#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "openvino_bindings.h"

namespace {

using Clock = std::chrono::steady_clock;

// A generation of at most 64 tokens on the tiny models takes well under a
// second; a minute without any slot returning is a wedge, not slowness.
int stallSeconds = 60;

const LlmApiBase* llm = nullptr;
const WhisperApiBase* whisper = nullptr;

std::atomic<long> progress{0};
std::atomic<const char*> current{"start"};
std::atomic<int> errors{0};
std::string lastError;

void OnLog(const char*) {}
void OnError(const char* message) {
    ++errors;
    lastError = message;
}
const HostCallbacks callbacks = {OnLog, OnError};

[[noreturn]] void Fail(const char* what, int status, int line) {
    std::fprintf(stderr, "soak: %s returned %d (line %d): %s\n", what, status, line, lastError.c_str());
    std::fflush(stderr);
    std::_Exit(1);
}

// Every slot call goes through here: the watchdog sees it return.
#define CALL(call, ...)                                                          \
    do {                                                                         \
        current.store(#call);                                                    \
        const int status_ = (call);                                              \
        ++progress;                                                              \
        if (!(__VA_ARGS__)) Fail(#call, status_, __LINE__);                      \
    } while (0)
#define OK(call) CALL(call, status_ == 0)

long ResidentKiB() {
    long pages = 0, resident = 0;
    if (FILE* statm = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2) resident = 0;
        std::fclose(statm);
    }
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// Prints every thread's stack (gdb, when the machine has it) and ends the
// process: a wedged run must fail loudly, not time out silently.
void Watchdog() {
    long seen = progress.load();
    auto since = Clock::now();
    for (;;) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        const long now = progress.load();
        if (now != seen) {
            seen = now;
            since = Clock::now();
        } else if (Clock::now() - since > std::chrono::seconds(stallSeconds)) {
            std::fprintf(stderr, "soak: no slot returned for %d s, inside %s\n", stallSeconds, current.load());
            std::fflush(stderr);
            const std::string dump = "gdb -p " + std::to_string(getpid()) +
                                     " -batch -ex 'thread apply all bt' >&2 2>/dev/null";
            if (std::system("command -v gdb >/dev/null") == 0 && std::system(dump.c_str()) != 0)
                std::fprintf(stderr, "soak: gdb could not attach\n");
            std::_Exit(3);
        }
    }
}

std::mt19937 rng;
int Pick(int low, int high) { return std::uniform_int_distribution<int>(low, high)(rng); }
bool Chance(int percent) { return Pick(1, 100) <= percent; }

// Settings by name with text values, drawn from what applications change.
void RandomLlmSettings(void* handle) {
    OK(llm->SetConfigProperty(handle, "max_new_tokens", std::to_string(Pick(1, 64)).c_str()));
    const bool sample = Chance(50);
    OK(llm->SetConfigProperty(handle, "do_sample", sample ? "true" : "false"));
    if (sample) {
        OK(llm->SetConfigProperty(handle, "temperature", std::to_string(Pick(1, 15) / 10.0).c_str()));
        OK(llm->SetConfigProperty(handle, "top_k", std::to_string(Pick(0, 50)).c_str()));
        OK(llm->SetConfigProperty(handle, "top_p", std::to_string(Pick(5, 10) / 10.0).c_str()));
        OK(llm->SetConfigProperty(handle, "rng_seed", std::to_string(Pick(0, 1000)).c_str()));
    }
    OK(llm->SetConfigProperty(handle, "repetition_penalty", Chance(50) ? "1.0" : "1.1"));
    OK(llm->SetConfigProperty(handle, "ignore_eos", Chance(25) ? "true" : "false"));
    OK(llm->SetConfigProperty(handle, "include_stop_str_in_output", Chance(50) ? "true" : "false"));
    char* text = nullptr;
    OK(llm->GetConfigProperty(handle, "max_new_tokens", &text));
    OK(llm->FreeConfigProperty(text));
}

void RandomStopLists(void* handle, int64_t eos) {
    static const char* const kStops[] = {"\n\n", "###", "User:", "zzq", "the end", ".", "\xC3\xA9t\xC3\xA9", "</s>"};
    std::vector<const char*> stops;
    for (const char* stop : kStops)
        if (Chance(40)) stops.push_back(stop);
    OK(llm->SetStopStrings(handle, stops.data(), stops.size()));
    std::vector<int64_t> ids = {eos};
    if (Chance(50)) ids.push_back(Pick(3, 200));
    OK(llm->SetStopTokens(handle, ids.data(), ids.size()));
    char** strings = nullptr;
    size_t count = 0;
    OK(llm->GetStopStrings(handle, &strings, &count));
    OK(llm->FreeStopStrings(strings, count));
    int64_t* stopIds = nullptr;
    OK(llm->GetStopTokens(handle, &stopIds, &count));
    OK(llm->FreeStopTokens(stopIds));
}

// onText stops the stream at a chosen piece in some streams.
std::atomic<int> piecesLeft{-1};
int OnText(char*) {
    ++progress;
    return piecesLeft.fetch_sub(1) == 1 ? 1 : 0;
}

// Cancels one handle a chosen time after being armed, from its own thread,
// as a host's UI or server thread would.
class Canceller {
public:
    explicit Canceller(int32_t (*cancel)(void*)) : cancel_(cancel), thread_([this] { Run(); }) {}
    ~Canceller() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            quit_ = true;
        }
        wake_.notify_all();
        thread_.join();
    }
    void Arm(void* handle, int delayMs) {
        std::lock_guard<std::mutex> lock(mutex_);
        handle_ = handle;
        at_ = Clock::now() + std::chrono::milliseconds(delayMs);
        wake_.notify_all();
    }
    // Returns once no cancel is pending, so the handle may be destroyed.
    void Disarm() {
        std::unique_lock<std::mutex> lock(mutex_);
        handle_ = nullptr;
    }

private:
    void Run() {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!quit_) {
            if (handle_ == nullptr) {
                wake_.wait(lock);
            } else if (Clock::now() < at_) {
                wake_.wait_until(lock, at_);
            } else {
                if (cancel_(handle_) != 0) Fail("CancelModel", 1, __LINE__);
                handle_ = nullptr;
            }
        }
    }
    int32_t (*cancel_)(void*);
    std::mutex mutex_;
    std::condition_variable wake_;
    void* handle_ = nullptr;
    Clock::time_point at_;
    bool quit_ = false;
    std::thread thread_;
};

int64_t EosId(void* handle) {
    char* text = nullptr;
    OK(llm->GetConfigProperty(handle, "eos_token_id", &text));
    const int64_t id = std::strtoll(text, nullptr, 10);
    OK(llm->FreeConfigProperty(text));
    return id;
}

void LlmIteration(void* handle, int64_t eos, Canceller& canceller) {
    RandomLlmSettings(handle);
    RandomStopLists(handle, eos);
    int64_t* ids = nullptr;
    size_t count = 0;
    OK(llm->Tokenize(handle, "The quick brown fox jumps over the lazy dog.", &ids, &count));
    OK(llm->FreeTokens(ids));
    char* text = nullptr;
    if (Chance(30)) canceller.Arm(handle, Pick(0, 30));
    OK(llm->QueryModel(handle, "Once upon a time", &text));
    OK(llm->FreeQueryResult(text));
    canceller.Disarm();
    piecesLeft = Chance(25) ? Pick(1, 5) : -1;
    canceller.Arm(handle, Pick(0, 30));
    char prompt[] = "User: tell me a story.\nAssistant:";
    OK(llm->StreamModel(handle, prompt, OnText));
    canceller.Disarm();
}

void WhisperIteration(void* handle, const std::vector<float>& speech, Canceller& canceller) {
    OK(whisper->SetConfigProperty(handle, "max_new_tokens", std::to_string(Pick(4, 64)).c_str()));
    OK(whisper->SetConfigProperty(handle, "return_timestamps", Chance(50) ? "true" : "false"));
    LangIdPair* pairs = nullptr;
    size_t count = 0;
    OK(whisper->GetLangToId(handle, &pairs, &count));
    OK(whisper->SetLangToId(handle, pairs, count));
    for (size_t i = 0; i < count; ++i) OK(whisper->FreeQueryResult(pairs[i].language));
    OK(whisper->FreeLangToId(pairs));
    int64_t* ids = nullptr;
    OK(whisper->GetSuppressTokens(handle, &ids, &count));
    OK(whisper->SetSuppressTokens(handle, ids, count));
    if (count > 0) OK(whisper->FreeSuppressTokens(ids));
    if (Chance(30)) canceller.Arm(handle, Pick(0, 300));
    char* text = nullptr;
    OK(whisper->QueryModel(handle, speech.data(), static_cast<int32_t>(speech.size()), &text));
    OK(whisper->FreeQueryResult(text));
    canceller.Disarm();
}

// Growth is judged on the last three quarters of the samples after warm-up:
// their median against the median of the first quarter.
bool Grows(const std::vector<long>& samples, long* growthKiB) {
    if (samples.size() < 8) return false;
    const size_t quarter = samples.size() / 4;
    auto median = [](std::vector<long> v) {
        std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
        return v[v.size() / 2];
    };
    const long early = median(std::vector<long>(samples.begin(), samples.begin() + quarter));
    const long late = median(std::vector<long>(samples.end() - quarter, samples.end()));
    *growthKiB = late - early;
    // 32 MiB: far above the runtime's own caches settling (a few MiB), far
    // below what a leak of one generation's buffers per iteration builds up.
    return *growthKiB > 32 * 1024;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 5) {
        std::fprintf(stderr, "usage: soak LIBRARY MODELS_DIR SPEECH_F32 SECONDS [SEED [STALL_SECONDS]]\n");
        return 2;
    }
    const std::string models = argv[2];
    const double seconds = std::atof(argv[4]);
    const unsigned seed = argc > 5 ? static_cast<unsigned>(std::atol(argv[5])) : std::random_device{}();
    rng.seed(seed);
    if (argc > 6) stallSeconds = std::atoi(argv[6]);
    std::ifstream file(argv[3], std::ios::binary);
    std::vector<float> speech;
    for (float sample; file.read(reinterpret_cast<char*>(&sample), sizeof sample);) speech.push_back(sample);
    if (speech.empty() && std::strcmp(argv[3], "none") != 0) {
        std::fprintf(stderr, "soak: no speech in %s\n", argv[3]);
        return 2;
    }

    void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        std::fprintf(stderr, "soak: %s\n", dlerror());
        return 1;
    }
    llm = reinterpret_cast<const LlmApiBase* (*)()>(dlsym(library, "GetLlmApiBase"))();
    whisper = reinterpret_cast<const WhisperApiBase* (*)()>(dlsym(library, "GetWhisperApiBase"))();
    std::thread(Watchdog).detach();

    void* speechModel = nullptr;
    if (!speech.empty())
        OK(whisper->InitModel((models + "/whisper-base").c_str(), DEVICE_CPU, &speechModel, &callbacks));
    Canceller llmCanceller(llm->CancelModel), whisperCanceller(whisper->CancelModel);

    const auto start = Clock::now();
    const auto warmedUp = start + std::chrono::duration<double>(seconds / 4);
    std::vector<long> samples;
    long iterations = 0, transcriptions = 0;
    void* model = nullptr;
    int64_t eos = 0;
    while (Clock::now() - start < std::chrono::duration<double>(seconds)) {
        if (iterations % 20 == 0) {
            OK(llm->DestroyModel(model));
            OK(llm->InitModel((models + "/tiny-llm").c_str(), DEVICE_CPU, 256, &model, &callbacks));
            eos = EosId(model);
        }
        LlmIteration(model, eos, llmCanceller);
        if (!speech.empty() && iterations % 10 == 0) {
            WhisperIteration(speechModel, speech, whisperCanceller);
            ++transcriptions;
        }
        ++iterations;
        // Warm-up also waits for the first transcriptions and handle
        // recreations, where the runtime's caches grow to their size.
        if (Clock::now() > warmedUp && iterations > 40 && (speech.empty() || transcriptions > 3))
            samples.push_back(ResidentKiB());
    }
    OK(llm->DestroyModel(model));
    if (speechModel != nullptr) OK(whisper->DestroyModel(speechModel));
    long growth = 0;
    const bool grows = Grows(samples, &growth);
    std::printf("soak: seed %u, %ld LLM iterations, %ld transcriptions in %.0f s, %d errors reported; "
                "resident %ld -> %ld MiB after warm-up (%+ld KiB)\n",
                seed, iterations, transcriptions, seconds, errors.load(), samples.empty() ? 0 : samples.front() / 1024,
                samples.empty() ? 0 : samples.back() / 1024, growth);
    if (grows) {
        std::fprintf(stderr, "soak: resident memory kept growing after warm-up\n");
        return 4;
    }
    return 0;
}
