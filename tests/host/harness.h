// The library as a host sees it: loaded with dlopen, reached through its tables.
#pragma once

#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "openvino_bindings.h"

namespace host {

const LlmApiBase& Llm();
const WhisperApiBase& Whisper();

// Messages that reached a callback pair. Pairs A and B are distinct functions,
// so a test can tell which pair the library used.
struct Inbox {
    std::vector<std::string> logs, errors;
};
enum class Pair { A, B };
const HostCallbacks& Callbacks(Pair pair);
Inbox& InboxOf(Pair pair);
void ClearInboxes();

// Model directories made by tools/make_llm_fixtures.py.
std::filesystem::path ModelDir(const std::string& name);

// A fresh directory removed with the object.
class TempDir {
public:
    TempDir();
    ~TempDir();
    const std::filesystem::path& path() const { return path_; }
    void Touch(const std::filesystem::path& relative) const;

private:
    std::filesystem::path path_;
};

// A copy of a model directory (model files linked, not copied) whose
// generation_config.json gets `json` merged over it.
std::filesystem::path ModelVariant(const TempDir& dir, const std::string& model, const std::string& json);

// An LLM handle on the CPU that reports through pair A, destroyed with the object.
class LlmModel {
public:
    LlmModel(const std::filesystem::path& dir, int contextLength);
    ~LlmModel();
    LlmModel(const LlmModel&) = delete;
    LlmModel& operator=(const LlmModel&) = delete;
    void* handle() const { return handle_; }

    // QueryModel's status; `result` gets the text (already released) or the
    // one error message. Checks that a failure writes no out-parameter.
    int32_t Query(const char* prompt, std::string& result);

private:
    void* handle_ = nullptr;
};

}  // namespace host
