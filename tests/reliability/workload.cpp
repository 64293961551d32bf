// A host that drives every slot of both tables, their releases and failure
// paths, the way applications do, with cancels from other threads at random
// moments and streams stopped from onText:
//   workload LIBRARY MODELS_DIR cycle [CYCLES]
//     whole handle lifetimes of both families on the tiny models (default
//     300); under LeakSanitizer the leaks are reported at exit (scripts/leak.sh)
//   workload LIBRARY MODELS_DIR soak SPEECH_F32 SECONDS [SEED [STALL_SECONDS]]
//     a random mix for SECONDS, one Whisper handle reused on raw 16 kHz float
//     speech ("none": LLM only); exit 3 when no slot returns for STALL_SECONDS
//     (a wedge; the threads' stacks are printed first), 4 when the resident
//     memory keeps growing
// Both exit 1 on any unexpected status.
#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <cstring>
#include <fstream>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "llm/llm_settings.h"
#include "openvino_bindings.h"
#include "whisper/whisper_settings.h"

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
    std::fprintf(stderr, "workload: %s returned %d (line %d): %s\n", what, status, line, lastError.c_str());
    std::fflush(stderr);
    std::_Exit(1);
}

// Every slot call goes through here, for the watchdog; a failure must come with its one message.
#define CALL(call, fails)                                                                     \
    do {                                                                                      \
        current.store(#call);                                                                 \
        const int before_ = errors.load(), status_ = (call);                                  \
        ++progress;                                                                           \
        if ((fails) ? status_ != 1 || errors.load() != before_ + 1 : status_ != 0) Fail(#call, status_, __LINE__); \
    } while (0)
#define OK(call) CALL(call, false)
#define FAILS(call) CALL(call, true)

long ResidentKiB() {
    long pages = 0, resident = 0;
    if (FILE* statm = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2) resident = 0;
        std::fclose(statm);
    }
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// A wedge fails loudly, with every thread's stack (gdb, when there is one).
void Watchdog() {
    long seen = progress.load();
    auto since = Clock::now();
    std::clock_t cpu = std::clock();
    for (;;) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        if (const long now = progress.load(); now != seen) {
            seen = now;
            since = Clock::now();
            cpu = std::clock();
        } else if (Clock::now() - since > std::chrono::seconds(stallSeconds)) {
            // CPU time and thread states tell a wedge (no CPU, all asleep) from a starved process (runnable threads).
            std::fprintf(stderr, "workload: no slot returned for %d s, inside %s; %.1f s of CPU meanwhile\n",
                         stallSeconds, current.load(), double(std::clock() - cpu) / CLOCKS_PER_SEC);
            std::fflush(stderr);
            const std::string pid = std::to_string(getpid());
            const std::string dump = "cat /proc/loadavg >&2; ps -L -o tid,stat,time -p " + pid + " >&2; gdb -p " + pid +
                                     " -batch -ex 'thread apply all bt' >&2 2>/dev/null";
            if (std::system("command -v gdb >/dev/null") == 0 && std::system(dump.c_str()) != 0)
                std::fprintf(stderr, "workload: gdb could not attach\n");
            std::_Exit(3);
        }
    }
}

std::mt19937 rng;
bool everything = false;  // the cycle mode takes every branch
int Pick(int low, int high) { return std::uniform_int_distribution<int>(low, high)(rng); }
bool Chance(int percent) { return everything || Pick(1, 100) <= percent; }

// Cancels the armed handle at its moment from a thread of its own, as a host's
// UI thread would; once disarmed no cancel is pending.
class Canceller {
public:
    explicit Canceller(int32_t (*cancel)(void*)) : cancel_(cancel) {}
    ~Canceller() {
        Arm(nullptr, 0);
        quit_ = true;
        thread_.join();
    }
    void Arm(void* handle, int delayMs) {
        std::lock_guard<std::mutex> lock(mutex_);
        handle_ = handle;
        at_ = Clock::now() + std::chrono::milliseconds(delayMs);
    }
    void Disarm() { Arm(nullptr, 0); }

private:
    void Run() {
        while (!quit_) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            std::lock_guard<std::mutex> lock(mutex_);
            if (handle_ == nullptr || Clock::now() < at_) continue;
            if (cancel_(handle_) != 0) Fail("CancelModel", 1, __LINE__);
            handle_ = nullptr;
        }
    }
    int32_t (*cancel_)(void*);
    std::mutex mutex_;
    void* handle_ = nullptr;
    Clock::time_point at_;
    std::atomic<bool> quit_{false};
    std::thread thread_{[this] { Run(); }};
};

// Every setting by name read and written back; an unset optional text fails
// the read, a size above 32 bits reads back as a text the setter refuses.
template <class Api, class Table>
void RoundTrips(const Api& api, void* handle, const Table& table) {
    for (const auto& row : table) {
        if (!row.byName) continue;
        char* text = nullptr;
        const int before = errors.load();
        int failed = api.GetConfigProperty(handle, row.name, &text) != 0;
        if (!failed) {
            failed = api.SetConfigProperty(handle, row.name, text) != 0;
            OK(api.FreeConfigProperty(text));
        }
        if (errors.load() != before + failed) Fail(row.name, failed, __LINE__);
    }
}

void LlmSettings(void* handle) {
    RoundTrips(*llm, handle, velmora::llm::kSettings);
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
    FAILS(llm->SetConfigProperty(handle, "no_such_setting", "1"));
    FAILS(llm->SetConfigProperty(handle, "top_k", "many"));
}

void LlmStopLists(void* handle, int64_t eos) {
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

int64_t EosId(void* handle) {
    char* text = nullptr;
    OK(llm->GetConfigProperty(handle, "eos_token_id", &text));
    const int64_t id = std::strtoll(text, nullptr, 10);
    OK(llm->FreeConfigProperty(text));
    return id;
}

void LlmIteration(void* handle, int64_t eos, Canceller& canceller) {
    LlmSettings(handle);
    LlmStopLists(handle, eos);
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

// Each id list read and set back as it was.
void WhisperIdLists(void* handle) {
    using Get = int32_t (*)(void*, int64_t**, size_t*);
    using Set = int32_t (*)(void*, const int64_t*, size_t);
    const std::pair<Get, Set> lists[] = {{whisper->GetSuppressTokens, whisper->SetSuppressTokens},
                                         {whisper->GetBeginSuppressTokens, whisper->SetBeginSuppressTokens}};
    for (const auto& [get, set] : lists) {
        int64_t* ids = nullptr;
        size_t count = 0;
        OK(get(handle, &ids, &count));
        OK(set(handle, ids, count));
        if (count > 0) OK(whisper->FreeSuppressTokens(ids));
    }
}

void WhisperIteration(void* handle, const std::vector<float>& speech, Canceller& canceller) {
    RoundTrips(*whisper, handle, velmora::whisper::kSettings);
    OK(whisper->SetConfigProperty(handle, "max_new_tokens", std::to_string(Pick(4, 64)).c_str()));
    OK(whisper->SetConfigProperty(handle, "return_timestamps", Chance(50) ? "true" : "false"));
    LangIdPair* pairs = nullptr;
    size_t count = 0;
    OK(whisper->GetLangToId(handle, &pairs, &count));
    OK(whisper->SetLangToId(handle, pairs, count));
    for (size_t i = 0; i < count; ++i) OK(whisper->FreeQueryResult(pairs[i].language));
    OK(whisper->FreeLangToId(pairs));
    WhisperIdLists(handle);
    if (Chance(30)) canceller.Arm(handle, Pick(0, 300));
    char* text = nullptr;
    OK(whisper->QueryModel(handle, speech.data(), static_cast<int32_t>(speech.size()), &text));
    OK(whisper->FreeQueryResult(text));
    canceller.Disarm();
    FAILS(whisper->QueryModel(handle, speech.data(), -1, &text));
    FAILS(whisper->SetConfigProperty(handle, "max_length", "\xff"));
}

// Memory grows when the medians of the four quarters of the samples after
// warm-up rise each time, by more than 32 MiB in all: a leak rises in every
// quarter, while the runtime's caches and the allocator's arenas settle in one
// or two steps of about 10 MiB.
struct Memory {
    long quarters[4] = {};  // KiB
    bool grows = false;
};

Memory Judge(const std::vector<long>& samples) {
    Memory memory;
    if (samples.size() < 8) return memory;
    const size_t quarter = samples.size() / 4;
    for (size_t q = 0; q < 4; ++q) {
        std::vector<long> part(samples.begin() + q * quarter, samples.begin() + (q + 1) * quarter);
        std::nth_element(part.begin(), part.begin() + part.size() / 2, part.end());
        memory.quarters[q] = part[part.size() / 2];
    }
    const long* m = memory.quarters;
    memory.grows = m[0] < m[1] && m[1] < m[2] && m[2] < m[3] && m[3] - m[0] > 32 * 1024;
    return memory;
}

// The cycle makes and ends both handles every iteration; the soak makes a new
// LLM handle every 20 iterations and transcribes every 10th with one handle.
int Drive(const std::string& models, bool cycle, double limit, const std::vector<float>& audio, unsigned seed) {
    everything = cycle;
    rng.seed(seed);
    Canceller llmCanceller(llm->CancelModel), whisperCanceller(whisper->CancelModel);
    const std::string whisperDir = models + (cycle ? "/tiny-whisper" : "/whisper-base");
    const auto start = Clock::now();
    const auto seconds = [&] { return std::chrono::duration<double>(Clock::now() - start).count(); };
    std::vector<long> samples;
    long iterations = 0, transcriptions = 0;
    void *model = nullptr, *speechModel = nullptr;
    int64_t eos = 0;
    while (cycle ? iterations < limit : seconds() < limit) {
        if (cycle || iterations % 20 == 0) {
            OK(llm->DestroyModel(model));
            OK(llm->InitModel((models + "/tiny-llm").c_str(), DEVICE_CPU, cycle ? 8 : 256, &model, &callbacks));
            eos = EosId(model);
        }
        LlmIteration(model, eos, llmCanceller);
        if (!audio.empty() && (cycle || iterations % 10 == 0)) {
            if (cycle || speechModel == nullptr) {
                OK(whisper->DestroyModel(speechModel));
                OK(whisper->InitModel(whisperDir.c_str(), DEVICE_CPU, &speechModel, &callbacks));
            }
            WhisperIteration(speechModel, audio, whisperCanceller);
            ++transcriptions;
        }
        ++iterations;
        // The warm-up waits for the first transcriptions and handle recreations to grow the caches.
        if (cycle || (seconds() > limit / 4 && iterations > 40 && (audio.empty() || transcriptions > 3)))
            samples.push_back(ResidentKiB());
    }
    OK(llm->DestroyModel(model));
    OK(whisper->DestroyModel(speechModel));
    std::printf("%s: seed %u, %ld LLM iterations, %ld transcriptions in %.0f s, %d errors reported\n",
                cycle ? "cycle" : "soak", seed, iterations, transcriptions, seconds(), errors.load());
    // The cycle's leaks are LeakSanitizer's to judge (each Whisper pipeline leaves the runtime about 1 MB).
    if (cycle) {
        std::printf("cycle: resident %ld -> %ld MiB\n", samples.front() / 1024, samples.back() / 1024);
        return 0;
    }
    const Memory memory = Judge(samples);
    const long* m = memory.quarters;
    std::printf("soak: resident after warm-up, median of each quarter: %ld %ld %ld %ld MiB\n", m[0] / 1024,
                m[1] / 1024, m[2] / 1024, m[3] / 1024);
    if (!memory.grows) return 0;
    std::fprintf(stderr, "soak: resident memory kept growing after warm-up\n");
    return 4;
}

}  // namespace

int main(int argc, char** argv) {
    const bool cycle = argc >= 4 && std::strcmp(argv[3], "cycle") == 0;
    if (!cycle && !(argc >= 6 && std::strcmp(argv[3], "soak") == 0)) {
        std::fprintf(stderr, "usage: workload LIBRARY MODELS_DIR cycle [CYCLES]\n"
                             "       workload LIBRARY MODELS_DIR soak SPEECH_F32 SECONDS [SEED [STALL_SECONDS]]\n");
        return 2;
    }
    std::vector<float> audio(cycle ? 16000 : 0);  // the cycle's: one second of 440 Hz
    for (size_t i = 0; i < audio.size(); ++i) audio[i] = 0.3f * std::sin(2 * M_PI * 440 * i / 16000.0);
    std::ifstream file(cycle ? "" : argv[4], std::ios::binary);
    for (float sample; file.read(reinterpret_cast<char*>(&sample), sizeof sample);) audio.push_back(sample);
    if (audio.empty() && std::strcmp(argv[4], "none") != 0) {
        std::fprintf(stderr, "workload: no speech in %s\n", argv[4]);
        return 2;
    }
    if (argc > 7) stallSeconds = std::atoi(argv[7]);
    void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        std::fprintf(stderr, "workload: %s\n", dlerror());
        return 1;
    }
    llm = reinterpret_cast<const LlmApiBase* (*)()>(dlsym(library, "GetLlmApiBase"))();
    whisper = reinterpret_cast<const WhisperApiBase* (*)()>(dlsym(library, "GetWhisperApiBase"))();
    // Not in the cycle: under LeakSanitizer a first model load alone can take minutes.
    if (!cycle) std::thread(Watchdog).detach();
    if (cycle) return Drive(argv[2], true, argc > 4 ? std::atof(argv[4]) : 300, audio, 1);
    return Drive(argv[2], false, std::atof(argv[5]), audio,
                 argc > 6 ? static_cast<unsigned>(std::atol(argv[6])) : std::random_device{}());
}
