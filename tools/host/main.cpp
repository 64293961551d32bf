// Generates text from a prompt through the library's LLM table.
//
//   velmora-host [--model DIR] [--device CPU|GPU|NPU] [--context N] [--library PATH] [PROMPT...]
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "openvino_bindings.h"

namespace {

void OnLog(const char* message) { std::fprintf(stderr, "%s\n", message); }
void OnError(const char* message) { std::fprintf(stderr, "error: %s\n", message); }

int Usage() {
    std::fprintf(stderr, "usage: velmora-host [--model DIR] [--device CPU|GPU|NPU] [--context N] "
                         "[--library PATH] [PROMPT...]\n");
    return 2;
}

int DeviceFromName(const std::string& name) {
    static const char* names[] = {"CPU", "GPU", "NPU"};
    for (int i = 0; i < 3; ++i)
        if (name == names[i]) return i;
    return std::atoi(name.c_str());  // a number goes to the library as is, to be judged there
}

}  // namespace

int main(int argc, char** argv) {
    std::string library = VELMORA_DEFAULT_LIBRARY;
    std::string model = VELMORA_DEFAULT_MODEL;
    std::string prompt;
    int device = DEVICE_CPU;
    int context = 64;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--model" && hasValue) model = argv[++i];
        else if (arg == "--device" && hasValue) device = DeviceFromName(argv[++i]);
        else if (arg == "--context" && hasValue) context = std::atoi(argv[++i]);
        else if (arg == "--library" && hasValue) library = argv[++i];
        else if (arg.rfind("--", 0) == 0) return Usage();
        else prompt += (prompt.empty() ? "" : " ") + arg;
    }
    if (prompt.empty()) prompt = "The three primary colors are";

    void* lib = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (lib == nullptr) {
        std::fprintf(stderr, "error: %s\n", dlerror());
        return 1;
    }
    auto getLlmApi = reinterpret_cast<const LlmApiBase* (*)()>(dlsym(lib, "GetLlmApiBase"));
    if (getLlmApi == nullptr) {
        std::fprintf(stderr, "error: %s\n", dlerror());
        return 1;
    }
    const LlmApiBase* api = getLlmApi();

    const HostCallbacks callbacks = {OnLog, OnError};
    void* handle = nullptr;
    if (api->InitModel(model.c_str(), device, context, &handle, &callbacks) != 0) return 1;

    char* text = nullptr;
    const int status = api->QueryModel(handle, prompt.c_str(), &text);
    if (status == 0) {
        std::printf("%s%s\n", prompt.c_str(), text);
        api->FreeQueryResult(text);
    }
    api->DestroyModel(handle);
    return status;
}
