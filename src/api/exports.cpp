// The only two symbols the library exports, and the tables behind them.
#include "core/buffers.h"
#include "llm/llm_slots.h"
#include "openvino_bindings.h"
#include "whisper/whisper_slots.h"

namespace {

int32_t FreeString(char* text) { return velmora::FreeString(text); }
int32_t FreeStringArray(char** strings, size_t count) { return velmora::FreeStringArray(strings, count); }
int32_t FreeBuffer(void* block) { return velmora::FreeBuffer(block); }
// A function of its own with FreeBuffer's behaviour, as hosts may compare slots.
int32_t FreeTokens(int64_t* ids) { return velmora::FreeBuffer(ids); }

namespace llm = velmora::llm;
namespace whisper = velmora::whisper;

// Each table is filled slot by slot by name, so two slots of one signature
// cannot trade places; Filled() refuses to build a table with a slot left out.
constexpr LlmApiBase MakeLlmApi() {
    LlmApiBase api{};
    api.InitModel = llm::InitModel;
    api.DestroyModel = llm::DestroyModel;
    api.QueryModel = llm::QueryModel;
    api.StreamModel = llm::StreamModel;
    api.FreeQueryResult = FreeString;
    api.SetConfigProperty = llm::SetConfigProperty;
    api.GetConfigProperty = llm::GetConfigProperty;
    api.FreeConfigProperty = FreeString;
    api.SetStopStrings = llm::SetStopStrings;
    api.GetStopStrings = llm::GetStopStrings;
    api.FreeStopStrings = FreeStringArray;
    api.SetStopTokens = llm::SetStopTokens;
    api.GetStopTokens = llm::GetStopTokens;
    api.FreeStopTokens = FreeBuffer;
    api.Tokenize = llm::Tokenize;
    api.FreeTokens = FreeTokens;
    api.CancelModel = llm::CancelModel;
    api.CompileModel = llm::CompileModel;
    return api;
}

constexpr WhisperApiBase MakeWhisperApi() {
    WhisperApiBase api{};
    api.InitModel = whisper::InitModel;
    api.DestroyModel = whisper::DestroyModel;
    api.QueryModel = whisper::QueryModel;
    api.FreeQueryResult = FreeString;
    api.SetConfigProperty = whisper::SetConfigProperty;
    api.GetConfigProperty = whisper::GetConfigProperty;
    api.FreeConfigProperty = FreeString;
    api.GetLangToId = whisper::GetLangToId;
    api.SetLangToId = whisper::SetLangToId;
    api.FreeLangToId = FreeBuffer;
    api.GetBeginSuppressTokens = whisper::GetBeginSuppressTokens;
    api.SetBeginSuppressTokens = whisper::SetBeginSuppressTokens;
    api.FreeBeginSuppressTokens = FreeBuffer;
    api.GetSuppressTokens = whisper::GetSuppressTokens;
    api.SetSuppressTokens = whisper::SetSuppressTokens;
    api.FreeSuppressTokens = FreeBuffer;
    api.CancelModel = whisper::CancelModel;
    return api;
}

// The bindings must match the slot count, so a slot added to the header fails here until it is filled above.
constexpr bool Filled(const LlmApiBase& api) {
    const auto& [s0, s1, s2, s3, s4, s5, s6, s7, s8, s9, s10, s11, s12, s13, s14, s15, s16, s17] = api;
    return s0 && s1 && s2 && s3 && s4 && s5 && s6 && s7 && s8 && s9 && s10 && s11 && s12 && s13 && s14 && s15 &&
           s16 && s17;
}

constexpr bool Filled(const WhisperApiBase& api) {
    const auto& [s0, s1, s2, s3, s4, s5, s6, s7, s8, s9, s10, s11, s12, s13, s14, s15, s16] = api;
    return s0 && s1 && s2 && s3 && s4 && s5 && s6 && s7 && s8 && s9 && s10 && s11 && s12 && s13 && s14 && s15 && s16;
}

// The layout C and every binding assume.
static_assert(sizeof(LangIdPair) == 16 && sizeof(HostCallbacks) == 2 * sizeof(void*), "the shapes C sees");

constexpr LlmApiBase llmApi = MakeLlmApi();
constexpr WhisperApiBase whisperApi = MakeWhisperApi();
// GCC's null-pointer sanitizer stops treating a function's address as non-null at compile time; the
// sanitizer builds compile these same tables, which every other build checks.
#ifndef __SANITIZE_ADDRESS__
static_assert(Filled(llmApi), "every LLM slot is filled");
static_assert(Filled(whisperApi), "every Whisper slot is filled");
// Hosts may hand any Text to any of the string releases and any block to any
// of the buffer releases, of either table.
static_assert(llmApi.FreeQueryResult == llmApi.FreeConfigProperty &&
                  llmApi.FreeQueryResult == whisperApi.FreeQueryResult &&
                  whisperApi.FreeQueryResult == whisperApi.FreeConfigProperty,
              "one string release");
static_assert(llmApi.FreeStopTokens == whisperApi.FreeLangToId &&
                  whisperApi.FreeLangToId == whisperApi.FreeBeginSuppressTokens &&
                  whisperApi.FreeLangToId == whisperApi.FreeSuppressTokens,
              "one buffer release");
#endif

}  // namespace

extern "C" __attribute__((visibility("default"))) const LlmApiBase* GetLlmApiBase(void) { return &llmApi; }
extern "C" __attribute__((visibility("default"))) const WhisperApiBase* GetWhisperApiBase(void) { return &whisperApi; }
