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

constexpr LlmApiBase llmApi = {
    llm::InitModel,         llm::DestroyModel,   llm::QueryModel,     llm::StreamModel,   FreeString,
    llm::SetConfigProperty, llm::GetConfigProperty, FreeString,        llm::SetStopStrings, llm::GetStopStrings,
    FreeStringArray,        llm::SetStopTokens,  llm::GetStopTokens,  FreeBuffer,         llm::Tokenize,
    FreeTokens,             llm::CancelModel,    llm::CompileModel,
};

constexpr WhisperApiBase whisperApi = {
    whisper::InitModel,         whisper::DestroyModel,  whisper::QueryModel,
    FreeString,                 whisper::SetConfigProperty, whisper::GetConfigProperty,
    FreeString,                 whisper::GetLangToId,   whisper::SetLangToId,
    FreeBuffer,                 whisper::GetBeginSuppressTokens, whisper::SetBeginSuppressTokens,
    FreeBuffer,                 whisper::GetSuppressTokens, whisper::SetSuppressTokens,
    FreeBuffer,                 whisper::CancelModel,
};

}  // namespace

extern "C" __attribute__((visibility("default"))) const LlmApiBase* GetLlmApiBase(void) { return &llmApi; }
extern "C" __attribute__((visibility("default"))) const WhisperApiBase* GetWhisperApiBase(void) { return &whisperApi; }
