#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "harness.h"

using host::Callbacks;
using host::InboxOf;
using host::Pair;
using host::Whisper;

namespace {

std::string InitError(const std::string& dir, int device) {
    host::ClearInboxes();
    void* const sentinel = reinterpret_cast<void*>(0x5eed);
    void* handle = sentinel;
    EXPECT_EQ(Whisper().InitModel(dir.c_str(), device, &handle, &Callbacks(Pair::B)), 1);
    EXPECT_EQ(handle, sentinel);
    EXPECT_EQ(InboxOf(Pair::B).logs, std::vector<std::string>{"Initializing OpenVINO Whisper model..."});
    EXPECT_EQ(InboxOf(Pair::B).errors.size(), 1u);
    return InboxOf(Pair::B).errors.empty() ? "" : InboxOf(Pair::B).errors.front();
}

// The last message of pair A, taken out, so each check sees only its own.
std::string TakeError() {
    auto& errors = InboxOf(Pair::A).errors;
    EXPECT_EQ(errors.size(), 1u);
    std::string message = errors.empty() ? "" : errors.back();
    errors.clear();
    return message;
}

// One second of a 440 Hz tone: the tiny model decodes anything to its length bound.
const std::vector<float>& Tone() {
    static const std::vector<float> samples = [] {
        std::vector<float> s(16000);
        for (size_t i = 0; i < s.size(); ++i) s[i] = 0.3f * std::sin(2 * M_PI * 440 * i / 16000.0);
        return s;
    }();
    return samples;
}

// A Whisper handle on the CPU reporting through pair A, destroyed with the object.
class WhisperModel {
public:
    explicit WhisperModel(const std::string& name = "tiny-whisper") {
        const std::string dir = host::ModelDir(name).string();
        EXPECT_EQ(Whisper().InitModel(dir.c_str(), DEVICE_CPU, &handle_, &Callbacks(Pair::A)), 0);
        host::ClearInboxes();
    }
    ~WhisperModel() { Whisper().DestroyModel(handle_); }
    void* handle() const { return handle_; }

    void Set(const char* name, const std::string& value) {
        ASSERT_EQ(Whisper().SetConfigProperty(handle_, name, value.c_str()), 0) << TakeError();
    }
    // QueryModel's status; `result` is the text (released here) or the one error.
    int32_t Transcribe(const std::vector<float>& samples, std::string& result) {
        char* text = reinterpret_cast<char*>(0x1);
        const int32_t status =
            Whisper().QueryModel(handle_, samples.data(), static_cast<int32_t>(samples.size()), &text);
        if (status != 0) {
            EXPECT_EQ(text, reinterpret_cast<char*>(0x1));
            result = TakeError();
        } else {
            result = text;
            EXPECT_EQ(Whisper().FreeQueryResult(text), 0);
        }
        return status;
    }

private:
    void* handle_ = nullptr;
};

std::vector<std::pair<std::string, int64_t>> LangToId(void* handle) {
    LangIdPair* const sentinel = reinterpret_cast<LangIdPair*>(0x1);
    LangIdPair* pairs = sentinel;
    size_t count = 99;
    EXPECT_EQ(Whisper().GetLangToId(handle, &pairs, &count), 0);
    std::vector<std::pair<std::string, int64_t>> map;
    if (count == 0) {
        EXPECT_EQ(pairs, sentinel);
        return map;
    }
    for (size_t i = 0; i < count; ++i) {
        map.emplace_back(pairs[i].language, pairs[i].id);
        Whisper().FreeQueryResult(pairs[i].language);
    }
    EXPECT_EQ(Whisper().FreeLangToId(pairs), 0);
    return map;
}

using GetIds = int32_t (*)(void*, int64_t**, size_t*);
std::vector<int64_t> Ids(GetIds get, void* handle) {
    int64_t* const sentinel = reinterpret_cast<int64_t*>(0x1);
    int64_t* ids = sentinel;
    size_t count = 99;
    EXPECT_EQ(get(handle, &ids, &count), 0);
    if (count == 0) {
        EXPECT_EQ(ids, sentinel);
        return {};
    }
    std::vector<int64_t> copy(ids, ids + count);
    EXPECT_EQ(Whisper().FreeSuppressTokens(ids), 0);
    return copy;
}

}  // namespace

TEST(WhisperInit, JudgesTheDeviceFirstAndLeavesTheDirectoryToTheRuntime) {
    EXPECT_EQ(InitError("/nonexistent", 3), "3device type is not supported");
    EXPECT_EQ(InitError("", -1), "-1device type is not supported");
    // No directory, context or blob checks of its own, for any device.
    for (int device : {DEVICE_CPU, DEVICE_NPU}) {
        const std::string message = InitError("/nonexistent", device);
        EXPECT_NE(message.find("openvino_encoder_model.xml"), std::string::npos) << message;
        EXPECT_EQ(message.find("The provided"), std::string::npos) << message;
    }
}

TEST(WhisperQuery, OneTextPerTranscriptionEvenWithTimestamps) {
    WhisperModel model;
    model.Set("max_new_tokens", "12");
    std::string plain, stamped;
    ASSERT_EQ(model.Transcribe(Tone(), plain), 0) << plain;
    EXPECT_FALSE(plain.empty());
    EXPECT_EQ(plain.find("<|"), std::string::npos) << plain;

    model.Set("return_timestamps", "true");
    ASSERT_EQ(model.Transcribe(Tone(), stamped), 0) << stamped;
    EXPECT_EQ(stamped.find("<|"), std::string::npos) << stamped;
    EXPECT_TRUE(InboxOf(Pair::A).errors.empty());
}

TEST(WhisperQuery, StoredSettingsAreJudgedByTheNextValidation) {
    WhisperModel model;
    model.Set("max_new_tokens", "4");
    // Settings are stored as given and refused only by the next validation.
    model.Set("language", "xyz");
    std::string message;
    EXPECT_EQ(model.Transcribe(Tone(), message), 1);
    EXPECT_EQ(message.rfind("Failed to validate config: Check 'it != lang_to_id.end()' failed at ", 0), 0u);
    EXPECT_NE(message.find("'language' xyz must be provided in 'lang_to_id' map."), std::string::npos);
    model.Set("language", "<|en|>");
    model.Set("task", "bogus");
    EXPECT_EQ(model.Transcribe(Tone(), message), 1);
    EXPECT_NE(message.find("Task provided: 'bogus'."), std::string::npos) << message;

    model.Set("task", "transcribe");
    EXPECT_EQ(model.Transcribe(Tone(), message), 0) << message;
}

TEST(WhisperQuery, CancelEndsARunningTranscriptionButNotTheNextOne) {
    WhisperModel model;
    model.Set("max_new_tokens", "1500");
    std::string full, early;
    // Raised between transcriptions, the flag is cleared by the next one.
    ASSERT_EQ(Whisper().CancelModel(model.handle()), 0);
    ASSERT_EQ(model.Transcribe(Tone(), full), 0);

    std::atomic<bool> done{false};
    std::thread canceller([&] {
        // The flag is cleared when the transcription starts, so keep raising it.
        while (!done) Whisper().CancelModel(model.handle());
    });
    const int32_t status = model.Transcribe(Tone(), early);
    done = true;
    canceller.join();
    ASSERT_EQ(status, 0) << early;
    EXPECT_LT(early.size(), full.size() / 4);
    EXPECT_EQ(full.compare(0, early.size(), early), 0) << early;
}

TEST(WhisperSettings, RoundTripsAndMessages) {
    WhisperModel model;
    auto get = [&](const char* name, std::string& value) {
        char* text = nullptr;
        const int32_t status = Whisper().GetConfigProperty(model.handle(), name, &text);
        if (status == 0) {
            value = text;
            Whisper().FreeConfigProperty(text);
        } else {
            value = TakeError();
        }
        return status;
    };
    std::string value;
    // The model's own defaults: optional texts absent, the length bound of its config.
    for (const char* name : {"language", "task", "Language"}) {
        EXPECT_EQ(get(name, value), 1);
        EXPECT_EQ(value, std::string("An error occurred getting property ") + name +
                             ". Property name not supported.");
    }
    EXPECT_EQ(get("max_length", value), 0);
    EXPECT_EQ(value, "448");

    // Every name once, all set before any is read: two names sharing a member would show.
    const struct {
        const char* name;
        const char* value;
        const char* readBack;
    } rows[] = {
        {"max_length", "7", "7"},
        {"max_new_tokens", "-1", "18446744073709551615"},
        {"decoder_start_token_id", "-2", "-2"},
        {"eos_token_id", "3", "3"},
        {"pad_token_id", "-1", "-1"},
        {"translate_token_id", "5", "5"},
        {"transcribe_token_id", "6", "6"},
        {"no_timestamps_token_id", "8", "8"},
        {"max_initial_timestamp_index", "-1", "18446744073709551615"},
        {"is_multilingual", "no", "false"},
        {"language", "xyz", "xyz"},
        {"task", "", ""},
        {"return_timestamps", "True", "true"},
    };
    for (const auto& row : rows) model.Set(row.name, row.value);
    for (const auto& row : rows) {
        EXPECT_EQ(get(row.name, value), 0) << row.name;
        EXPECT_EQ(value, row.readBack) << row.name << "=" << row.value;
    }

    const std::pair<std::pair<const char*, const char*>, const char*> refusals[] = {
        {{"decoder_start_token_id", "abc"},
         "An error occurred setting property decoder_start_token_id with value abc: invalid stol argument"},
        {{"max_length", "abc"}, "An error occurred setting property max_length with value abc: invalid stoi argument"},
        {{"temperature", "1"}, "An error occurred setting property temperature. Property name not supported."},
        {{"stop_criteria", "1"}, "An error occurred setting property stop_criteria. Property name not supported."},
        {{"Language", "en"}, "An error occurred setting property Language. Property name not supported."},
    };
    for (const auto& [setting, message] : refusals) {
        EXPECT_EQ(Whisper().SetConfigProperty(model.handle(), setting.first, setting.second), 1);
        EXPECT_EQ(TakeError(), message);
    }
}

TEST(WhisperLists, LanguageMapIsOrderedByBytesAndKeepsTheFirstId) {
    WhisperModel model;
    const auto loaded = LangToId(model.handle());
    ASSERT_EQ(loaded.size(), 99u);  // the multilingual vocabulary
    EXPECT_TRUE(std::is_sorted(loaded.begin(), loaded.end()));

    char b[] = "b", a[] = "a", upper[] = "A", empty[] = "", repeated[] = "x";
    const LangIdPair pairs[] = {{b, 2}, {a, 1}, {repeated, 7}, {upper, 3}, {repeated, 9}, {empty, 4}};
    ASSERT_EQ(Whisper().SetLangToId(model.handle(), pairs, 6), 0);
    const std::vector<std::pair<std::string, int64_t>> expected = {
        {"", 4}, {"A", 3}, {"a", 1}, {"b", 2}, {"x", 7}};
    EXPECT_EQ(LangToId(model.handle()), expected);

    ASSERT_EQ(Whisper().SetLangToId(model.handle(), nullptr, 0), 0);
    EXPECT_TRUE(LangToId(model.handle()).empty());
}

TEST(WhisperLists, SuppressionListsKeepOrderAndDuplicatesAndStayApart) {
    WhisperModel model;
    const WhisperApiBase& api = Whisper();
    void* const h = model.handle();
    EXPECT_EQ(Ids(api.GetBeginSuppressTokens, h), (std::vector<int64_t>{220, 50257}));
    const std::vector<int64_t> loadedSuppress = Ids(api.GetSuppressTokens, h);
    EXPECT_EQ(loadedSuppress.size(), 88u);

    const int64_t ids[] = {5, 5, 3};
    ASSERT_EQ(api.SetSuppressTokens(h, ids, 3), 0);
    EXPECT_EQ(Ids(api.GetSuppressTokens, h), (std::vector<int64_t>{5, 5, 3}));
    EXPECT_EQ(Ids(api.GetBeginSuppressTokens, h), (std::vector<int64_t>{220, 50257}));

    // A copy handed out is independent of later changes.
    int64_t* copy = nullptr;
    size_t count = 0;
    ASSERT_EQ(api.GetSuppressTokens(h, &copy, &count), 0);
    ASSERT_EQ(api.SetBeginSuppressTokens(h, nullptr, 0), 0);
    ASSERT_EQ(api.SetSuppressTokens(h, ids + 2, 1), 0);
    EXPECT_EQ(std::vector<int64_t>(copy, copy + count), (std::vector<int64_t>{5, 5, 3}));
    api.FreeSuppressTokens(copy);
    EXPECT_TRUE(Ids(api.GetBeginSuppressTokens, h).empty());
    EXPECT_EQ(Ids(api.GetSuppressTokens, h), std::vector<int64_t>{3});

    // The runtime takes the replaced lists.
    std::string text;
    model.Set("max_new_tokens", "4");
    EXPECT_EQ(model.Transcribe(Tone(), text), 0) << text;
}

// Real speech: a sentence spoken by espeak-ng, made 16 kHz mono float by sox,
// transcribed by Whisper base.
TEST(WhisperSpeech, TranscribesASpokenSentence) {
    host::TempDir dir;
    const std::string wav = (dir.path() / "speech.wav").string(), raw = (dir.path() / "speech.f32").string();
    const std::string make = "espeak-ng -w '" + wav + "' 'Please call Stella and ask her to bring these things.'" +
                             " && sox '" + wav + "' -r 16000 -c 1 -b 32 -e float -t raw '" + raw + "'";
    ASSERT_EQ(std::system(make.c_str()), 0) << make;
    std::ifstream in(raw, std::ios::binary | std::ios::ate);
    std::vector<float> samples(static_cast<size_t>(in.tellg()) / sizeof(float));
    in.seekg(0);
    in.read(reinterpret_cast<char*>(samples.data()), samples.size() * sizeof(float));
    ASSERT_GT(samples.size(), 16000u);

    WhisperModel model("whisper-base");
    std::string text;
    ASSERT_EQ(model.Transcribe(samples, text), 0) << text;
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    int heard = 0;
    for (const char* word : {"please", "call", "stella", "ask", "bring", "things"}) {
        heard += text.find(word) != std::string::npos;
    }
    EXPECT_GE(heard, 5) << text;
}
