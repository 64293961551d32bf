#include "harness.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <mutex>
#include <stdexcept>

namespace fs = std::filesystem;

namespace host {
namespace {

void* Library() {
    static void* library = [] {
        void* lib = dlopen(VELMORA_LIBRARY_FILE, RTLD_NOW | RTLD_LOCAL);
        if (lib == nullptr) throw std::runtime_error(dlerror());
        return lib;
    }();
    return library;
}

template <class Table>
const Table& TableOf(const char* symbol) {
    auto get = reinterpret_cast<const Table* (*)()>(dlsym(Library(), symbol));
    if (get == nullptr) throw std::runtime_error(symbol);
    return *get();
}

Inbox inboxes[2];
std::mutex inboxMutex;

template <int I>
void LogTo(const char* m) {
    std::lock_guard<std::mutex> lock(inboxMutex);
    inboxes[I].logs.emplace_back(m);
}
template <int I>
void ErrorTo(const char* m) {
    std::lock_guard<std::mutex> lock(inboxMutex);
    inboxes[I].errors.emplace_back(m);
}

const HostCallbacks pairs[2] = {{LogTo<0>, ErrorTo<0>}, {LogTo<1>, ErrorTo<1>}};

std::string InitError(Pair pair, const char* log, const std::function<int32_t(void**)>& init) {
    ClearInboxes();
    void* handle = Untouched<void>();
    EXPECT_EQ(init(&handle), 1);
    EXPECT_EQ(handle, Untouched<void>());
    const Inbox& inbox = InboxOf(pair);
    EXPECT_EQ(inbox.logs, std::vector<std::string>{log});
    EXPECT_EQ(inbox.errors.size(), 1u);
    return inbox.errors.empty() ? "" : inbox.errors.front();
}

}  // namespace

const LlmApiBase& Llm() { return TableOf<LlmApiBase>("GetLlmApiBase"); }
const WhisperApiBase& Whisper() { return TableOf<WhisperApiBase>("GetWhisperApiBase"); }

const HostCallbacks& Callbacks(Pair pair) { return pairs[static_cast<int>(pair)]; }
Inbox& InboxOf(Pair pair) { return inboxes[static_cast<int>(pair)]; }
void ClearInboxes() {
    for (Inbox& inbox : inboxes) inbox = Inbox{};
}

std::pair<int32_t, std::string> Reported(Pair pair, const std::function<int32_t()>& call) {
    ClearInboxes();
    const int32_t status = call();
    const std::vector<std::string>& errors = InboxOf(pair).errors;
    EXPECT_LE(errors.size(), 1u);
    if (status == 0) EXPECT_TRUE(errors.empty()) << errors.front();
    return {status, errors.empty() ? "" : errors.front()};
}

// Texts of either family go back through the LLM table: the releases are shared.
std::pair<int32_t, std::string> TextOf(Pair pair, const std::function<int32_t(char**)>& call) {
    char* text = Untouched<char>();
    auto answer = Reported(pair, [&] { return call(&text); });
    if (answer.first == 0) {
        answer.second = text;
        EXPECT_EQ(Llm().FreeQueryResult(text), 0);
    } else {
        EXPECT_EQ(text, Untouched<char>());
    }
    return answer;
}

std::string LlmInitError(const fs::path& dir, int device, int contextLength) {
    return InitError(Pair::A, "Initializing OpenVINO LLM model...", [&](void** handle) {
        return Llm().InitModel(dir.c_str(), device, contextLength, handle, &Callbacks(Pair::A));
    });
}

std::string WhisperInitError(const fs::path& dir, int device) {
    return InitError(Pair::B, "Initializing OpenVINO Whisper model...", [&](void** handle) {
        return Whisper().InitModel(dir.c_str(), device, handle, &Callbacks(Pair::B));
    });
}

fs::path ModelDir(const std::string& name) {
    fs::path dir = fs::path(VELMORA_MODELS_DIR) / name;
    if (!fs::is_directory(dir)) throw std::runtime_error(dir.string() + " is missing: run scripts/setup.sh");
    return dir;
}

fs::path ModelVariant(const TempDir& dir, const std::string& model, const std::string& without) {
    const fs::path target = dir.path() / (without.empty() ? model : model + "-without-" + without);
    fs::create_directories(target);
    for (const fs::directory_entry& entry : fs::directory_iterator(ModelDir(model)))
        if (entry.path().stem() != "openvino_" + without) fs::create_symlink(entry.path(), target / entry.path().filename());
    return target;
}

bool StartsWith(const std::string& text, const std::string& prefix) { return text.rfind(prefix, 0) == 0; }
bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

std::vector<float> Tone(size_t samples, double hertz) {
    std::vector<float> audio(samples);
    for (size_t i = 0; i < samples; ++i) audio[i] = 0.3f * std::sin(2 * M_PI * hertz * i / 16000.0);
    return audio;
}

std::vector<int64_t> Ids(int32_t (*get)(void*, int64_t**, size_t*), void* handle) {
    int64_t* ids = Untouched<int64_t>();
    size_t count = 99;
    EXPECT_EQ(get(handle, &ids, &count), 0);
    if (count == 0) {
        EXPECT_EQ(ids, Untouched<int64_t>());
        return {};
    }
    std::vector<int64_t> copy(ids, ids + count);
    EXPECT_EQ(Llm().FreeStopTokens(ids), 0);
    return copy;
}

LlmModel::LlmModel(const fs::path& dir, int contextLength) {
    ClearInboxes();
    EXPECT_EQ(Llm().InitModel(dir.c_str(), DEVICE_CPU, contextLength, &handle_, &Callbacks(Pair::A)), 0)
        << (InboxOf(Pair::A).errors.empty() ? "" : InboxOf(Pair::A).errors.back());
}

LlmModel::~LlmModel() { Llm().DestroyModel(handle_); }

int32_t LlmModel::Query(const char* prompt, std::string& result) {
    int32_t status;
    std::tie(status, result) = TextOf(Pair::A, [&](char** text) { return Llm().QueryModel(handle_, prompt, text); });
    return status;
}

std::pair<int32_t, std::string> LlmModel::Set(const char* name, const char* value) {
    return Reported(Pair::A, [&] { return Llm().SetConfigProperty(handle_, name, value); });
}

WhisperModel::WhisperModel(const fs::path& dir, int maxNewTokens) {
    ClearInboxes();
    EXPECT_EQ(Whisper().InitModel(dir.c_str(), DEVICE_CPU, &handle_, &Callbacks(Pair::B)), 0)
        << (InboxOf(Pair::B).errors.empty() ? "" : InboxOf(Pair::B).errors.back());
    if (maxNewTokens > 0) Set("max_new_tokens", std::to_string(maxNewTokens));
}

WhisperModel::~WhisperModel() { Whisper().DestroyModel(handle_); }

void WhisperModel::Set(const char* name, const std::string& value) {
    auto [status, message] =
        Reported(Pair::B, [&] { return Whisper().SetConfigProperty(handle_, name, value.c_str()); });
    EXPECT_EQ(status, 0) << name << "=" << value << ": " << message;
}

int32_t WhisperModel::Transcribe(const float* samples, int32_t count, std::string& result) {
    int32_t status;
    std::tie(status, result) =
        TextOf(Pair::B, [&](char** text) { return Whisper().QueryModel(handle_, samples, count, text); });
    return status;
}

}  // namespace host
