// The library as a host sees it: loaded with dlopen, reached through its tables.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "../temp_dir.h"
#include "openvino_bindings.h"

namespace host {

using ::TempDir;

const LlmApiBase& Llm();
const WhisperApiBase& Whisper();

// What an out-parameter holds until a slot writes it; slots write only on success.
template <class T>
T* Untouched() {
    return reinterpret_cast<T*>(0x1);
}

// Messages that reached callback pair A or B, so a test sees which pair the library used.
struct Inbox {
    std::vector<std::string> logs, errors;
};
enum class Pair { A, B };
const HostCallbacks& Callbacks(Pair pair);
Inbox& InboxOf(Pair pair);
void ClearInboxes();

// A slot call's status and its one message through `pair` ("" for none; none on success).
std::pair<int32_t, std::string> Reported(Pair pair, const std::function<int32_t()>& call);

// A slot that writes one text: the status with the text (released) or the
// message; a failure leaves the out-parameter untouched.
std::pair<int32_t, std::string> TextOf(Pair pair, const std::function<int32_t(char**)>& call);

// The one message of a failing InitModel (LLM: pair A, Whisper: B) after its log line; no handle written.
std::string LlmInitError(const std::filesystem::path& dir, int device = DEVICE_CPU, int contextLength = 8);
std::string WhisperInitError(const std::filesystem::path& dir, int device = DEVICE_CPU);

// Model directories made by tools/make_llm_fixtures.py.
std::filesystem::path ModelDir(const std::string& name);
// A linked copy of a model directory, without openvino_<without>.xml/.bin.
std::filesystem::path ModelVariant(const TempDir& dir, const std::string& model, const std::string& without = "");

bool StartsWith(const std::string& text, const std::string& prefix);
bool Contains(const std::string& text, const std::string& part);

// A 16 kHz sine tone: the tiny Whisper model decodes anything to its length bound.
std::vector<float> Tone(size_t samples, double hertz = 440);

// The ids of a getter shaped like GetStopTokens (both families have them), released.
std::vector<int64_t> Ids(int32_t (*get)(void*, int64_t**, size_t*), void* handle);

// An LLM handle on the CPU that reports through pair A, destroyed with the object.
class LlmModel {
public:
    LlmModel(const std::filesystem::path& dir, int contextLength);
    ~LlmModel();
    LlmModel(const LlmModel&) = delete;
    LlmModel& operator=(const LlmModel&) = delete;
    void* handle() const { return handle_; }

    // The status, with the text or the one message in `result`.
    int32_t Query(const char* prompt, std::string& result);
    std::pair<int32_t, std::string> Set(const char* name, const char* value);

private:
    void* handle_ = nullptr;
};

// A Whisper handle on the CPU that reports through pair B; `maxNewTokens` keeps the random model quick.
class WhisperModel {
public:
    explicit WhisperModel(const std::filesystem::path& dir, int maxNewTokens = 0);
    ~WhisperModel();
    WhisperModel(const WhisperModel&) = delete;
    WhisperModel& operator=(const WhisperModel&) = delete;
    void* handle() const { return handle_; }

    void Set(const char* name, const std::string& value);  // must be taken without a word
    int32_t Transcribe(const float* samples, int32_t count, std::string& result);
    int32_t Transcribe(const std::vector<float>& samples, std::string& result) {
        return Transcribe(samples.data(), static_cast<int32_t>(samples.size()), result);
    }

private:
    void* handle_ = nullptr;
};

}  // namespace host
