// The LLM table on the tiny model: loading, queries, settings, tokenizing, compiling.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "harness.h"

namespace fs = std::filesystem;
using namespace host;

namespace {

std::pair<int32_t, std::string> Get(void* handle, const char* name) {
    return host::TextOf(Pair::A, [&](char** out) { return Llm().GetConfigProperty(handle, name, out); });
}

// What a snippet printed in the runtime's Python environment; arguments go as hex, unquoted.
std::string RunPython(const std::string& script, const std::vector<std::string>& args) {
    std::ostringstream command;
    command << (fs::path(VELMORA_MODELS_DIR).parent_path() / ".venv/bin/python") << " -c '" << script << "'";
    for (const std::string& arg : args) {
        command << " '";
        for (unsigned char c : arg) command << "0123456789abcdef"[c >> 4] << "0123456789abcdef"[c & 15];
        command << "'";
    }
    FILE* pipe = popen(command.str().c_str(), "r");
    if (pipe == nullptr) return {};
    std::string output;
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) output.append(buffer, n);
    EXPECT_EQ(pclose(pipe), 0) << command.str();
    return output;
}

std::vector<std::string> Listing(const fs::path& dir) {
    std::vector<std::string> entries;
    for (const fs::directory_entry& e : fs::recursive_directory_iterator(dir)) entries.push_back(e.path().string());
    std::sort(entries.begin(), entries.end());
    return entries;
}

const std::string kCompilePrefix = "An exception occurred while compiling the model: ";

// CompileModel needs no handle; a failed InitModel stores pair A for its reports.
std::pair<int32_t, std::string> Compile(const fs::path& dir, int device, int contextLength) {
    void* handle = nullptr;
    Llm().InitModel("", DEVICE_CPU, 0, &handle, &Callbacks(Pair::A));
    return host::Reported(Pair::A, [&] { return Llm().CompileModel(dir.c_str(), device, contextLength); });
}

}  // namespace

TEST(LlmInit, ReportsTheFirstFailingCheckInOrder) {
    host::TempDir dir;
    dir.Touch("file.txt");
    const fs::path model = host::ModelDir("tiny-llm");
    EXPECT_EQ(LlmInitError(dir.path() / "missing", 7, 0), "The context length must be greater than 0");
    EXPECT_EQ(LlmInitError(dir.path() / "missing", 0, 16), "The provided model path is not a directory");
    EXPECT_EQ(LlmInitError(dir.path() / "file.txt", 0, 16), "The provided model path is not a directory");
    // Properties are built before the device is named.
    EXPECT_EQ(LlmInitError(model, 7, 16), "7device type is not supported");
    EXPECT_EQ(LlmInitError(dir.path(), 2, 16), "The provided cache dreictory does not contain an expected blob file");
    // With a blob below, the NPU passes our checks and fails in the runtime (no NPU here).
    const fs::path variant = host::ModelVariant(dir, "tiny-llm");
    dir.Touch(fs::path("tiny-llm") / "nested" / "model.blob");
    EXPECT_TRUE(host::Contains(LlmInitError(variant, 2, 16), "Exception from"));
}

TEST(LlmInit, NeedsAnErrorFunctionAndALaterInitRedirectsItsFamilyOnly) {
    const fs::path model = host::ModelDir("tiny-llm");
    void* handle = nullptr;
    EXPECT_EQ(Llm().InitModel(model.c_str(), 0, 16, &handle, nullptr), 1);
    const HostCallbacks noError = {Callbacks(Pair::A).log, nullptr};
    EXPECT_EQ(Llm().InitModel(model.c_str(), 0, 16, &handle, &noError), 1);
    EXPECT_EQ(handle, nullptr);
    void* whisperHandle = nullptr;
    host::Whisper().InitModel("", 9, &whisperHandle, &Callbacks(Pair::A));
    // A missing log function is skipped; the model still loads.
    host::ClearInboxes();
    const HostCallbacks noLog = {nullptr, Callbacks(Pair::A).error};
    ASSERT_EQ(Llm().InitModel(model.c_str(), 0, 16, &handle, &noLog), 0);
    EXPECT_TRUE(InboxOf(Pair::A).logs.empty());

    // The second init fails, but its pair is already in place for its own report.
    void* other = nullptr;
    EXPECT_EQ(Llm().InitModel("", 0, 0, &other, &Callbacks(Pair::B)), 1);
    EXPECT_EQ(InboxOf(Pair::B).errors.size(), 1u);
    EXPECT_EQ(Llm().QueryModel(nullptr, "x", nullptr), 1);
    EXPECT_EQ(host::Whisper().CancelModel(nullptr), 1);
    EXPECT_EQ(InboxOf(Pair::B).errors.size(), 2u);
    EXPECT_EQ(InboxOf(Pair::A).errors.size(), 1u);
    EXPECT_EQ(Llm().DestroyModel(handle), 0);
}

// The context length is the default max_new_tokens (LlmSettings reads it back).
TEST(LlmQuery, MaxNewTokensBoundsTheDeterministicTextWhichOutlivesItsHandle) {
    void* handle = nullptr;
    ASSERT_EQ(Llm().InitModel(host::ModelDir("tiny-llm").c_str(), DEVICE_CPU, 3, &handle, &Callbacks(Pair::A)), 0);
    char *three = nullptr, *six = nullptr;
    ASSERT_EQ(Llm().QueryModel(handle, "Once upon a time", &three), 0);
    ASSERT_EQ(Llm().SetConfigProperty(handle, "max_new_tokens", "6"), 0);
    ASSERT_EQ(Llm().QueryModel(handle, "Once upon a time", &six), 0);
    // The texts are terminated copies that outlive their handle.
    EXPECT_EQ(Llm().DestroyModel(handle), 0);
    EXPECT_GT(std::strlen(three), 0u);
    EXPECT_GT(std::strlen(six), std::strlen(three));
    EXPECT_TRUE(StartsWith(six, three)) << three << " / " << six;
    EXPECT_EQ(Llm().FreeQueryResult(three), 0);
    EXPECT_EQ(Llm().FreeQueryResult(six), 0);
}

// Names match exactly; the list members have slots of their own.
TEST(LlmSettings, NamesMatchExactlyAndListsAreNoSettings) {
    LlmModel model(host::ModelDir("tiny-llm"), 512);
    for (const char* name : {"MAX_NEW_TOKENS", " max_new_tokens", "", "apply_chat_template", "stop_strings"}) {
        const std::string quoted = std::string("property ") + name + ". Property name not supported.";
        EXPECT_EQ(model.Set(name, "7"), std::make_pair(1, "An error occurred setting " + quoted));
        EXPECT_EQ(Get(model.handle(), name), std::make_pair(1, "An error occurred getting " + quoted));
    }
}

TEST(LlmTokenize, GivesTheRuntimeTokenizersIdsAndLeavesGenerationAlone) {
    const fs::path dir = host::ModelDir("tiny-llm");
    const std::vector<std::string> texts = {"hello world", "  two  spaces", "caf\xc3\xa9 \xe2\x9c\x93", ""};
    std::vector<std::string> args{dir.string()};
    args.insert(args.end(), texts.begin(), texts.end());
    std::istringstream expected(RunPython(
        "import sys, openvino_genai as g; a = [bytes.fromhex(x).decode() for x in sys.argv[1:]]; "
        "t = g.Tokenizer(a[0]); [print(*t.encode([s]).input_ids.data[0]) for s in a[1:]]",
        args));

    LlmModel model(dir, 12);
    std::string before, after;
    ASSERT_EQ(model.Query("Once upon a time", before), 0);
    for (const std::string& text : texts) {
        std::string line;
        ASSERT_TRUE(std::getline(expected, line)) << "no ids from the runtime for '" << text << "'";
        std::istringstream words(line);
        std::vector<int64_t> ids;
        for (int64_t id; words >> id;) ids.push_back(id);
        int64_t* out = nullptr;
        size_t count = 99;
        ASSERT_EQ(Llm().Tokenize(model.handle(), text.c_str(), &out, &count), 0);
        EXPECT_NE(out, nullptr) << "an array even for no ids";
        EXPECT_EQ(std::vector<int64_t>(out, out + count), ids) << "'" << text << "'";
        EXPECT_EQ(Llm().FreeTokens(out), 0);
    }
    ASSERT_EQ(model.Query("Once upon a time", after), 0);
    EXPECT_EQ(after, before);
}

TEST(LlmCompile, RefusesBadArgumentsBeforeTheRuntimeSeesThem) {
    host::TempDir dir;
    const fs::path model = host::ModelVariant(dir, "tiny-llm");
    EXPECT_EQ(Compile(model, 3, 0), std::make_pair(1, kCompilePrefix + "The context length must be greater than 0"));
    EXPECT_EQ(Compile(model, 3, 16), std::make_pair(1, kCompilePrefix + "3device type is not supported"));

    // Without a blob the NPU gets as far as the runtime, which fails here and writes nothing.
    const std::vector<std::string> before = Listing(model);
    const auto [status, message] = Compile(model, DEVICE_NPU, 16);
    EXPECT_EQ(status, 1);
    EXPECT_TRUE(StartsWith(message, kCompilePrefix) && host::Contains(message, "Exception from")) << message;
    EXPECT_EQ(Listing(model), before);
}

// The blob is the runtime's own cache file: after a CPU pipeline cached into the
// directory, the NPU compile refuses it and a CPU compile adds nothing.
TEST(LlmCompile, TheNpuRefusesADirectoryTheRuntimeAlreadyCachedInto) {
    host::TempDir dir;
    const fs::path model = host::ModelVariant(dir, "tiny-llm");
    RunPython("import sys, openvino_genai as g; d = bytes.fromhex(sys.argv[1]).decode(); "
              "g.LLMPipeline(d, \"CPU\", CACHE_DIR=d)",
              {model.string()});
    const std::vector<std::string> before = Listing(model);
    ASSERT_TRUE(std::any_of(before.begin(), before.end(), [](const fs::path& p) { return p.extension() == ".blob"; }))
        << "the runtime wrote no .blob into CACHE_DIR";
    const std::string refused = "The provided cache directory already contains an unexpected blob file";
    EXPECT_EQ(Compile(model, DEVICE_NPU, 16), std::make_pair(1, kCompilePrefix + refused));
    EXPECT_EQ(Compile(model, DEVICE_CPU, 16), std::make_pair(0, std::string()));
    EXPECT_EQ(Listing(model), before);
}
