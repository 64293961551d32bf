#include "library.h"

#include <dlfcn.h>

#include <mutex>
#include <utility>

#include "progress.h"

namespace cli {
namespace {

std::mutex errorMutex;  // the library may report from the runtime's threads
std::string lastError;

void OnLog(const char* message) { Progress::Note(message); }

// Kept for the command that failed, which words the line with what it was doing.
void OnError(const char* message) {
    std::lock_guard<std::mutex> lock(errorMutex);
    lastError = message;
}

template <typename Table>
const Table* Resolve(void* handle, const char* symbol, std::string& error) {
    auto get = reinterpret_cast<const Table* (*)()>(dlsym(handle, symbol));
    if (get == nullptr) {
        error = dlerror();
        return nullptr;
    }
    return get();
}

}  // namespace

Library::Library(const std::string& path) {
    handle_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle_ == nullptr) {
        loadError_ = dlerror();
        return;
    }
    llm_ = Resolve<LlmApiBase>(handle_, "GetLlmApiBase", loadError_);
    whisper_ = Resolve<WhisperApiBase>(handle_, "GetWhisperApiBase", loadError_);
}

// The library is never dlclosed: the interpreter it embeds cannot be unloaded.
Library::~Library() = default;

const HostCallbacks& Library::Callbacks() {
    static const HostCallbacks callbacks = {OnLog, OnError};
    return callbacks;
}

std::string Library::TakeError() {
    std::lock_guard<std::mutex> lock(errorMutex);
    return std::exchange(lastError, std::string());
}

}  // namespace cli
