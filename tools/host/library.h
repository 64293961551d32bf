// The library, known only by its path: dlopen, the two tables, the host's
// callback pair.
#pragma once

#include <string>

#include "openvino_bindings.h"

namespace cli {

class Library {
public:
    // Loads the library; on failure ok() is false and error() says why.
    explicit Library(const std::string& path);
    ~Library();
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    bool ok() const { return llm_ != nullptr && whisper_ != nullptr; }
    const std::string& error() const { return loadError_; }
    const LlmApiBase& llm() const { return *llm_; }
    const WhisperApiBase& whisper() const { return *whisper_; }

    // The pair given to every InitModel: log messages go to stderr, the
    // error message is kept for TakeError.
    static const HostCallbacks& Callbacks();
    // The library's last error message, "" when none; clears it.
    static std::string TakeError();

private:
    void* handle_ = nullptr;
    const LlmApiBase* llm_ = nullptr;
    const WhisperApiBase* whisper_ = nullptr;
    std::string loadError_;
};

}  // namespace cli
