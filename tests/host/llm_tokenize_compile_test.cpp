#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "harness.h"

namespace fs = std::filesystem;
using host::Llm;
using host::LlmModel;

namespace {

// Runs a snippet in the runtime's own Python environment (where the build
// finds it by default) and returns what it printed; arguments go as hex so no
// text needs quoting.
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

std::vector<int64_t> Tokens(void* handle, const std::string& text) {
    int64_t* ids = nullptr;
    size_t count = 99;
    EXPECT_EQ(Llm().Tokenize(handle, text.c_str(), &ids, &count), 0);
    EXPECT_NE(ids, nullptr) << "an array even for no ids";
    std::vector<int64_t> result(ids, ids + count);
    EXPECT_EQ(Llm().FreeTokens(ids), 0);
    return result;
}

std::vector<std::string> Listing(const fs::path& dir) {
    std::vector<std::string> entries;
    for (const fs::directory_entry& e : fs::recursive_directory_iterator(dir)) entries.push_back(e.path().string());
    std::sort(entries.begin(), entries.end());
    return entries;
}

bool HasBlob(const fs::path& dir) {
    const std::vector<std::string> entries = Listing(dir);
    return std::any_of(entries.begin(), entries.end(), [](const fs::path& p) { return p.extension() == ".blob"; });
}

const std::string kPrefix = "An exception occurred while compiling the model: ";

// CompileModel needs no handle; a failed InitModel stores pair A for its reports.
std::pair<int32_t, std::string> Compile(const fs::path& dir, int device, int contextLength) {
    void* handle = nullptr;
    Llm().InitModel("", DEVICE_CPU, 0, &handle, &host::Callbacks(host::Pair::A));
    return host::Reported(host::Pair::A, [&] { return Llm().CompileModel(dir.c_str(), device, contextLength); });
}

}  // namespace

TEST(LlmTokenize, GivesTheRuntimeTokenizersIdsAndLeavesGenerationAlone) {
    const fs::path dir = host::ModelDir("tiny-llm");
    const std::vector<std::string> texts = {"hello world", "Once upon a time", "  two  spaces",
                                            "caf\xc3\xa9 \xe2\x9c\x93", "line\nbreak\ttab", ""};
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
        EXPECT_EQ(Tokens(model.handle(), text), ids) << "'" << text << "'";
    }
    ASSERT_EQ(model.Query("Once upon a time", after), 0);
    EXPECT_EQ(after, before);
}

TEST(LlmCompile, RefusesBadArgumentsBeforeTheRuntimeSeesThem) {
    host::TempDir dir;
    const fs::path model = host::ModelVariant(dir, "tiny-llm", "{}");
    for (int device : {0, 1, 2, 3})
        EXPECT_EQ(Compile(model, device, 0), std::make_pair(1, kPrefix + "The context length must be greater than 0"));
    EXPECT_EQ(Compile(model, 3, 16), std::make_pair(1, kPrefix + "3device type is not supported"));

    // Without a blob the NPU gets as far as the runtime, which fails here and writes nothing.
    const std::vector<std::string> before = Listing(model);
    const auto [status, message] = Compile(model, DEVICE_NPU, 16);
    EXPECT_EQ(status, 1);
    EXPECT_TRUE(host::StartsWith(message, kPrefix)) << message;
    EXPECT_GT(message.size(), kPrefix.size() + 10) << message;
    EXPECT_EQ(Listing(model), before);
}

// The blob is the runtime's own cache file: a CPU pipeline given CACHE_DIR
// writes one, and the NPU compile then refuses the directory while a CPU
// compile ignores the blob and adds nothing.
TEST(LlmCompile, TheNpuRefusesADirectoryTheRuntimeAlreadyCachedInto) {
    host::TempDir dir;
    const fs::path model = host::ModelVariant(dir, "tiny-llm", "{}");
    ASSERT_FALSE(HasBlob(model));
    RunPython("import sys, openvino_genai as g; d = bytes.fromhex(sys.argv[1]).decode(); "
              "g.LLMPipeline(d, \"CPU\", CACHE_DIR=d)",
              {model.string()});
    ASSERT_TRUE(HasBlob(model)) << "the runtime wrote no .blob into CACHE_DIR";

    const std::vector<std::string> before = Listing(model);
    const std::string refused = "The provided cache directory already contains an unexpected blob file";
    EXPECT_EQ(Compile(model, DEVICE_NPU, 16), std::make_pair(1, kPrefix + refused));
    EXPECT_EQ(Compile(model, DEVICE_CPU, 16), std::make_pair(0, std::string()));
    EXPECT_EQ(Listing(model), before);
}
