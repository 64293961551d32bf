#include "library.h"

#include <dlfcn.h>

#include <atomic>

#include "progress.h"

namespace cli {
namespace {

std::atomic<int> errorCount{0};
std::atomic<bool> muted{false};

void OnLog(const char* message) {
    if (!muted) Progress::Note(message);
}

void OnError(const char* message) {
    ++errorCount;
    if (!muted) Progress::Note((std::string("error: ") + message).c_str());
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

int Library::ErrorCount() { return errorCount; }

void Library::Mute(bool on) { muted = on; }

}  // namespace cli
