#include "harness.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
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

}  // namespace

const LlmApiBase& Llm() { return TableOf<LlmApiBase>("GetLlmApiBase"); }
const WhisperApiBase& Whisper() { return TableOf<WhisperApiBase>("GetWhisperApiBase"); }

const HostCallbacks& Callbacks(Pair pair) { return pairs[static_cast<int>(pair)]; }
Inbox& InboxOf(Pair pair) { return inboxes[static_cast<int>(pair)]; }
void ClearInboxes() {
    for (Inbox& inbox : inboxes) inbox = Inbox{};
}

fs::path ModelDir(const std::string& name) {
    fs::path dir = fs::path(VELMORA_MODELS_DIR) / name;
    if (!fs::is_directory(dir)) throw std::runtime_error(dir.string() + " is missing: run scripts/setup.sh");
    return dir;
}

TempDir::TempDir() {
    char pattern[] = "/tmp/velmora-test-XXXXXX";
    if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}
TempDir::~TempDir() { fs::remove_all(path_); }
void TempDir::Touch(const fs::path& relative) const {
    fs::create_directories((path_ / relative).parent_path());
    std::ofstream(path_ / relative) << "x";
}

fs::path ModelVariant(const TempDir& dir, const std::string& model, const std::string& json) {
    const fs::path source = ModelDir(model);
    const fs::path target = dir.path() / model;
    fs::create_directories(target);
    for (const fs::directory_entry& entry : fs::directory_iterator(source))
        if (entry.path().filename() != "generation_config.json")
            fs::create_symlink(entry.path(), target / entry.path().filename());
    // Merged with Python's json, which the runtime's own environment has anyway.
    std::ostringstream command;
    command << "python3 -c 'import json,sys; c=json.load(open(sys.argv[1])); c.update(json.loads(sys.argv[2])); "
               "json.dump(c, open(sys.argv[3], \"w\"))' "
            << source / "generation_config.json" << " '" << json << "' " << target / "generation_config.json";
    if (std::system(command.str().c_str()) != 0) throw std::runtime_error("could not write " + target.string());
    return target;
}

LlmModel::LlmModel(const fs::path& dir, int contextLength) {
    ClearInboxes();
    EXPECT_EQ(Llm().InitModel(dir.c_str(), DEVICE_CPU, contextLength, &handle_, &Callbacks(Pair::A)), 0)
        << (InboxOf(Pair::A).errors.empty() ? "" : InboxOf(Pair::A).errors.back());
}

LlmModel::~LlmModel() { Llm().DestroyModel(handle_); }

int32_t LlmModel::Query(const char* prompt, std::string& result) {
    ClearInboxes();
    char* const untouched = reinterpret_cast<char*>(0x1);
    char* text = untouched;
    const int32_t status = Llm().QueryModel(handle_, prompt, &text);
    const std::vector<std::string>& errors = InboxOf(Pair::A).errors;
    if (status == 0) {
        result = text;
        Llm().FreeQueryResult(text);
        EXPECT_TRUE(errors.empty());
    } else {
        EXPECT_EQ(text, untouched) << "the out-parameter is written only on success";
        EXPECT_EQ(errors.size(), 1u);
        result = errors.empty() ? "" : errors.front();
    }
    return status;
}

}  // namespace host
