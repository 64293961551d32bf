// libFuzzer target: the Whisper settings, language-map and suppression-list
// slots, as linked into the library, fed a sequence of calls with arbitrary
// bytes on one handle. Checks statuses, the one-message rule, that
// out-parameters are written only on success, that getters give back what
// setters stored (first id of a repeated key; lists in order with duplicates),
// and (through ASan) that every buffer is released by the release slots.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "api/buffers.h"
#include "pipeline/config_properties.h"
#include "slot_fuzzing.h"
#include "whisper/openvino_whisper_model.h"
#include "whisper/whisper_slots.h"

namespace velmora {
// The settings and list slots need the object, not a loaded pipeline.
OpenVinoWhisperModel::OpenVinoWhisperModel(std::string, int32_t) {}
}  // namespace velmora

namespace {

using fuzzing::Outcome;
namespace whisper = velmora::whisper;

void SetAndGet(void* handle, const std::string& name, const std::string& value) {
    const int32_t status = whisper::SetConfigProperty(handle, name.c_str(), value.c_str());
    CHECK(status == 0 || status == 1);
    const std::string message = Outcome(status);
    const bool known = velmora::FindProperty(velmora::WhisperPropertyTable(), name) != nullptr;
    if (!known) CHECK(message == "An error occurred setting property " + name + ". Property name not supported.");
    if (status == 1) CHECK(!message.empty());

    char* const untouched = reinterpret_cast<char*>(0x1);
    char* text = untouched;
    const int32_t got = whisper::GetConfigProperty(handle, name.c_str(), &text);
    const std::string getMessage = Outcome(got);
    if (got != 0) {
        // Every known setting has a value once it was set, language and task too.
        CHECK(text == untouched && got == 1 && !known &&
              getMessage == "An error occurred getting property " + name + ". Property name not supported.");
        return;
    }
    CHECK(known && text != untouched && text != nullptr);
    // Texts are stored as given, cut at the host's NUL.
    if (status == 0 && (name == "language" || name == "task")) CHECK(value == text);
    velmora::FreeString(text);
}

void LangToId(void* handle, FuzzedDataProvider& input, std::map<std::string, int64_t>& expected) {
    std::vector<std::string> keys(input.ConsumeIntegralInRange<size_t>(0, 8));
    std::vector<LangIdPair> pairs;
    for (std::string& key : keys) key = input.ConsumeRandomLengthString(24);
    for (std::string& key : keys) pairs.push_back(LangIdPair{key.data(), input.ConsumeIntegral<int64_t>()});
    CHECK(whisper::SetLangToId(handle, pairs.empty() ? nullptr : pairs.data(), pairs.size()) == 0);
    Outcome(0);
    expected.clear();
    for (const LangIdPair& pair : pairs) expected.emplace(pair.language, pair.id);

    LangIdPair* const untouched = reinterpret_cast<LangIdPair*>(0x1);
    LangIdPair* out = untouched;
    size_t count = 99;
    CHECK(whisper::GetLangToId(handle, &out, &count) == 0);
    Outcome(0);
    CHECK(count == expected.size());
    if (count == 0) {
        CHECK(out == untouched);
        return;
    }
    size_t k = 0;
    for (const auto& [key, id] : expected) {
        CHECK(std::strcmp(out[k].language, key.c_str()) == 0 && out[k].id == id);
        velmora::FreeString(out[k++].language);
    }
    velmora::FreeBuffer(out);
}

using TokenGetter = int32_t (*)(void*, int64_t**, size_t*);
using TokenSetter = int32_t (*)(void*, const int64_t*, size_t);

void TokenList(void* handle, FuzzedDataProvider& input, TokenSetter set, TokenGetter get,
               std::vector<int64_t>& expected) {
    expected.assign(input.ConsumeIntegralInRange<size_t>(0, 16), 0);
    // Small ids repeat often, so duplicates are kept in view.
    for (int64_t& id : expected) id = input.ConsumeBool() ? input.ConsumeIntegralInRange<int64_t>(0, 3) : input.ConsumeIntegral<int64_t>();
    CHECK(set(handle, expected.empty() ? nullptr : expected.data(), expected.size()) == 0);
    Outcome(0);

    int64_t* const untouched = reinterpret_cast<int64_t*>(0x1);
    int64_t* ids = untouched;
    size_t count = 99;
    CHECK(get(handle, &ids, &count) == 0);
    Outcome(0);
    CHECK(count == expected.size());
    if (count == 0) {
        CHECK(ids == untouched);
        return;
    }
    CHECK(std::vector<int64_t>(ids, ids + count) == expected);
    velmora::FreeBuffer(ids);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    fuzzing::Listen(velmora::Family::Whisper);
    auto* model = new velmora::OpenVinoWhisperModel("", 0);
    void* handle = model;
    std::map<std::string, int64_t> langs;
    std::vector<int64_t> suppress, beginSuppress;
    const auto table = velmora::WhisperPropertyTable();
    while (input.remaining_bytes() > 0) {
        switch (input.ConsumeIntegralInRange<int>(0, 4)) {
            case 0:
                fuzzing::Setting(input, table, [&](const std::string& name, const std::string& value) {
                    SetAndGet(handle, name, value);
                });
                break;
            case 1:
                LangToId(handle, input, langs);
                break;
            case 2:
                TokenList(handle, input, whisper::SetSuppressTokens, whisper::GetSuppressTokens, suppress);
                break;
            case 3:
                TokenList(handle, input, whisper::SetBeginSuppressTokens, whisper::GetBeginSuppressTokens,
                          beginSuppress);
                break;
            default:
                // No slot reaches a collection other than its own.
                CHECK(model->config.lang_to_id == langs && model->config.suppress_tokens == suppress &&
                      model->config.begin_suppress_tokens == beginSuppress);
                break;
        }
    }
    delete model;
    return 0;
}
