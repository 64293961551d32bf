// libFuzzer target: the LLM settings, stop-string and stop-token slots, as
// linked into the library, fed a sequence of calls with arbitrary bytes on one
// handle. Checks statuses, the one-message rule, that out-parameters are
// written only on success, that getters give back what setters stored, and
// (through ASan) that every buffer is released by the library's release slots.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "api/buffers.h"
#include "llm/llm_slots.h"
#include "llm/openvino_llm_model.h"
#include "pipeline/config_properties.h"
#include "slot_fuzzing.h"

namespace velmora {
// The settings and list slots need the object, not a loaded pipeline.
OpenVinoLlmModel::OpenVinoLlmModel(std::string, int32_t, int32_t) {}
}  // namespace velmora

namespace {

using fuzzing::Outcome;
namespace llm = velmora::llm;

void SetAndGet(void* handle, const std::string& name, const std::string& value) {
    const int32_t status = llm::SetConfigProperty(handle, name.c_str(), value.c_str());
    CHECK(status == 0 || status == 1);
    const std::string message = Outcome(status);
    const bool known = velmora::FindProperty(velmora::LlmPropertyTable(), name) != nullptr;
    if (!known) CHECK(status == 1 && message == "An error occurred setting property " + name + ". Property name not supported.");
    // Only a refused stop criterion fails without a message.
    if (status == 1 && message.empty()) CHECK(name == "stop_criteria");

    char* const untouched = reinterpret_cast<char*>(0x1);
    char* text = untouched;
    const int32_t got = llm::GetConfigProperty(handle, name.c_str(), &text);
    const std::string getMessage = Outcome(got);
    if (got != 0) {
        CHECK(text == untouched);
        CHECK(!known && getMessage == "An error occurred getting property " + name + ". Property name not supported.");
        return;
    }
    CHECK(known && text != untouched && text != nullptr);
    if (status == 0 && name == "stop_criteria") CHECK(value == text);
    velmora::FreeString(text);
}

void StopStrings(void* handle, FuzzedDataProvider& input, std::set<std::string>& expected) {
    std::vector<std::string> given(input.ConsumeIntegralInRange<size_t>(0, 8));
    for (std::string& s : given) s = input.ConsumeRandomLengthString(64);
    std::vector<const char*> pointers;
    for (const std::string& s : given) pointers.push_back(s.c_str());
    CHECK(llm::SetStopStrings(handle, given.empty() ? nullptr : pointers.data(), given.size()) == 0);
    Outcome(0);
    expected.clear();
    for (const std::string& s : given) expected.insert(fuzzing::HostString(s));

    char** const untouched = reinterpret_cast<char**>(0x1);
    char** strings = untouched;
    size_t count = 99;
    CHECK(llm::GetStopStrings(handle, &strings, &count) == 0);
    Outcome(0);
    CHECK(count == expected.size());
    if (count == 0) {
        CHECK(strings == untouched);
        return;
    }
    size_t i = 0;
    for (const std::string& s : expected) CHECK(std::strcmp(strings[i++], s.c_str()) == 0);
    velmora::FreeStringArray(strings, count);
}

void StopTokens(void* handle, FuzzedDataProvider& input, std::set<int64_t>& expected) {
    std::vector<int64_t> given(input.ConsumeIntegralInRange<size_t>(0, 16));
    for (int64_t& id : given) id = input.ConsumeIntegral<int64_t>();
    CHECK(llm::SetStopTokens(handle, given.empty() ? nullptr : given.data(), given.size()) == 0);
    Outcome(0);
    expected = std::set<int64_t>(given.begin(), given.end());

    int64_t* const untouched = reinterpret_cast<int64_t*>(0x1);
    int64_t* ids = untouched;
    size_t count = 99;
    CHECK(llm::GetStopTokens(handle, &ids, &count) == 0);
    Outcome(0);
    CHECK(count == expected.size());
    if (count == 0) {
        CHECK(ids == untouched);
        return;
    }
    CHECK(std::vector<int64_t>(ids, ids + count) == std::vector<int64_t>(expected.begin(), expected.end()));
    velmora::FreeBuffer(ids);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    fuzzing::Listen(velmora::Family::Llm);
    auto* model = new velmora::OpenVinoLlmModel("", 0, 0);
    void* handle = model;
    std::set<std::string> stops;
    std::set<int64_t> stopIds;
    const auto table = velmora::LlmPropertyTable();
    while (input.remaining_bytes() > 0) {
        switch (input.ConsumeIntegralInRange<int>(0, 3)) {
            case 0:
                fuzzing::Setting(input, table, [&](const std::string& name, const std::string& value) {
                    SetAndGet(handle, name, value);
                });
                break;
            case 1:
                StopStrings(handle, input, stops);
                break;
            case 2:
                StopTokens(handle, input, stopIds);
                break;
            default:
                // Settings never reach the lists, nor the lists each other.
                CHECK(model->config.stop_strings == stops && model->config.stop_token_ids == stopIds);
                break;
        }
    }
    delete model;
    return 0;
}
