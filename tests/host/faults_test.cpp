// Broken model directories, prompts, settings and audio the runtime cannot take:
// the documented status, one message, and handles that still work.
#include <gtest/gtest.h>
#include <sys/fsuid.h>
#include <unistd.h>

#include <climits>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "harness.h"

namespace fs = std::filesystem;
using namespace host;

namespace {

int piecesSeen = 0;
int CountPiece(char*) {
    ++piecesSeen;
    return 0;
}

int32_t Stream(void* handle, const char* prompt) {
    piecesSeen = 0;
    return Llm().StreamModel(handle, const_cast<char*>(prompt), CountPiece);
}

}  // namespace

TEST(LlmFaults, AnUnreadableDirectoryIsReportedAsSuch) {
    host::TempDir dir;
    const fs::path model = host::ModelVariant(dir, "tiny-llm");
    // A directory whose parent may not be searched cannot even be looked at.
    fs::permissions(dir.path(), fs::perms::none);
    // Permissions apply to root too without its file-system privileges (this thread's only).
    const bool root = geteuid() == 0;
    if (root) setfsuid(65534);
    const std::string message = LlmInitError(model);
    if (root) setfsuid(0);
    EXPECT_EQ(message, "filesystem error: status: Permission denied [" + model.string() + "]");
    fs::permissions(dir.path(), fs::perms::owner_all);
    LlmModel readable(model, 8);
    std::string text;
    EXPECT_EQ(readable.Query("Once upon a time", text), 0);
}

// The runtime loads a pipeline without its tokenizer or detokenizer and fails
// when one is needed (a stream once ended the process).
TEST(LlmFaults, AMissingTokenizerFailsEachUseAndNotTheProcess) {
    host::TempDir dir;
    LlmModel noTokenizer(host::ModelVariant(dir, "tiny-llm", "tokenizer"), 8);
    std::string message;
    EXPECT_EQ(noTokenizer.Query("Hello", message), 4);
    EXPECT_TRUE(Contains(message, "An OpenVINO assertion occurred while querying the model: Check "));
    EXPECT_TRUE(Contains(message, "openvino_tokenizer.xml was not provided")) << message;
    int64_t* ids = nullptr;
    size_t count = 0;
    auto [status, text] = Reported(Pair::A, [&] { return Llm().Tokenize(noTokenizer.handle(), "Hello", &ids, &count); });
    EXPECT_EQ(status, 1);
    EXPECT_TRUE(Contains(text, "Tokenizer::encode is not available")) << text;

    LlmModel noDetokenizer(host::ModelVariant(dir, "tiny-llm", "detokenizer"), 8);
    EXPECT_EQ(noDetokenizer.Query("Hello", message), 4);
    const std::string reason = "Detokenizer model has not been provided";
    EXPECT_TRUE(Contains(message, "An OpenVINO assertion occurred while querying the model: Check ")) << message;
    EXPECT_TRUE(Contains(message, reason)) << message;
    std::tie(status, text) = Reported(Pair::A, [&] { return Stream(noDetokenizer.handle(), "Hello"); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(piecesSeen, 0);
    EXPECT_TRUE(Contains(text, reason)) << text;
    // Tokenizing needs no detokenizer.
    ASSERT_EQ(Llm().Tokenize(noDetokenizer.handle(), "Hello", &ids, &count), 0);
    EXPECT_GT(count, 0u);
    Llm().FreeTokens(ids);
}

TEST(LlmFaults, PromptsAndSettingsTheRuntimeCannotTakeLeaveTheHandleUsable) {
    LlmModel model(host::ModelDir("tiny-llm"), 4);
    std::string expected, result;
    ASSERT_EQ(model.Query("Once upon a time", expected), 0);

    const std::string reason = "'utf-8' codec can't decode byte 0xff in position 2: invalid start byte";
    EXPECT_EQ(model.Query("ab\xff\xfe", result), 5);
    EXPECT_EQ(result, "An unknown error occurred while querying the model: " + reason);
    auto [status, message] = Reported(Pair::A, [&] { return Stream(model.handle(), "ab\xff\xfe"); });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(message, reason);
    EXPECT_EQ(piecesSeen, 0);
    int64_t* ids = nullptr;
    size_t count = 0;
    EXPECT_EQ(Reported(Pair::A, [&] { return Llm().Tokenize(model.handle(), "ab\xff\xfe", &ids, &count); }),
              std::make_pair(1, reason));

    ASSERT_EQ(model.Query("Once upon a time", result), 0);
    EXPECT_EQ(result, expected);
}

// Stored as given, settings are judged when a generation starts: QueryModel's
// status says where, StreamModel says 1 before any piece.
TEST(LlmFaults, StoredSettingsTheRuntimeRejectsFailTheNextGeneration) {
    LlmModel model(host::ModelDir("tiny-llm"), 4);
    std::string result;
    ASSERT_EQ(model.Set("num_beams", "2").first, 0);
    ASSERT_EQ(model.Set("num_return_sequences", "3").first, 0);
    EXPECT_EQ(model.Query("Hello", result), 2);
    EXPECT_TRUE(host::StartsWith(result, "Failed to validate config: Check 'num_beams >= num_return_sequences' failed"))
        << result;
    auto [status, message] = Reported(Pair::A, [&] { return Stream(model.handle(), "Hello"); });
    EXPECT_EQ(std::make_tuple(status, message, piecesSeen), std::make_tuple(1, result, 0));
    ASSERT_EQ(model.Set("num_return_sequences", "1").first, 0);
    ASSERT_EQ(model.Set("num_beams", "1").first, 0);
    EXPECT_EQ(model.Query("Hello", result), 0) << result;

    // 64-bit sizes reach the runtime, which refuses the largest in both lengths with ignore_eos.
    ASSERT_EQ(model.Set("ignore_eos", "true").first, 0);
    ASSERT_EQ(model.Set("max_length", "-1").first, 0);
    ASSERT_EQ(model.Set("max_new_tokens", "-1").first, 0);
    EXPECT_EQ(model.Query("Hello", result), 2);
    EXPECT_TRUE(host::StartsWith(result, "Failed to validate config: Check '!ignore_eos || ")) << result;
    ASSERT_EQ(model.Set("max_new_tokens", "2").first, 0);
    EXPECT_EQ(model.Query("Hello", result), 0) << result;

    // A stop string that is no text fails outside the runtime's assertions:
    // QueryModel says 3 with its prefix, StreamModel 1 with the text alone.
    const char* stop[] = {"\xff"};
    ASSERT_EQ(Llm().SetStopStrings(model.handle(), stop, 1), 0);
    EXPECT_EQ(model.Query("Hello", result), 3);
    const std::string prefix = "Failure during config validation: ";
    ASSERT_TRUE(host::StartsWith(result, prefix)) << result;
    std::tie(status, message) = Reported(Pair::A, [&] { return Stream(model.handle(), "Hello"); });
    EXPECT_EQ(std::make_tuple(status, message, piecesSeen), std::make_tuple(1, result.substr(prefix.size()), 0));
}

TEST(WhisperFaults, AMissingDetokenizerFailsEachTranscription) {
    host::TempDir dir;

    const std::vector<float> audio = host::Tone(16000);
    std::string result;
    WhisperModel noDetokenizer(host::ModelVariant(dir, "tiny-whisper", "detokenizer"), 4);
    EXPECT_EQ(noDetokenizer.Transcribe(audio, result), 1);
    EXPECT_TRUE(Contains(result, "Detokenizer model has not been provided")) << result;
    // Transcription decodes only, so the tokenizer itself is not needed.
    WhisperModel noTokenizer(host::ModelVariant(dir, "tiny-whisper", "tokenizer"), 4);
    EXPECT_EQ(noTokenizer.Transcribe(audio, result), 0) << result;
}

TEST(WhisperFaults, AudioAndSettingsTheRuntimeCannotTakeLeaveTheHandleUsable) {
    WhisperModel model(host::ModelDir("tiny-whisper"), 4);
    const std::vector<float> audio = host::Tone(16000);
    std::string expected, result;
    ASSERT_EQ(model.Transcribe(audio, expected), 0);

    // No samples reach the runtime as an empty block, which it refuses itself.
    const std::string tooShort = "raw_speech too short for reflect padding: size=0, required > 200";
    EXPECT_EQ(model.Transcribe(nullptr, 0, result), 1);
    EXPECT_TRUE(Contains(result, tooShort)) << result;
    EXPECT_EQ(model.Transcribe(audio.data(), 1, result), 1);
    EXPECT_TRUE(Contains(result, "raw_speech too short for reflect padding: size=1")) << result;
    for (int32_t count : {-1, INT32_MIN}) {
        EXPECT_EQ(model.Transcribe(audio.data(), count, result), 1);
        EXPECT_EQ(result, "vector too long");
    }

    // A language that is no text fails the transcription, not the setter.
    model.Set("language", "\xff");
    EXPECT_EQ(model.Transcribe(audio, result), 1);
    EXPECT_TRUE(Contains(result, "'utf-8' codec can't decode byte 0xff")) << result;
    model.Set("language", "<|en|>");
    EXPECT_EQ(model.Transcribe(audio, result), 0) << result;
    LangIdPair weird[] = {{const_cast<char*>("\xff\xfe"), 5}, {const_cast<char*>(""), 6}};
    EXPECT_EQ(Whisper().SetLangToId(model.handle(), weird, 2), 0);
    EXPECT_EQ(model.Transcribe(audio, result), 1);
}
