// The functions behind the slots of the LLM table.
#pragma once

#include "core/shared_slots.h"
#include "llm_settings.h"
#include "openvino_bindings.h"

namespace velmora::llm {

class OpenVinoLlmModel;
// DestroyModel, the settings by name and CancelModel: the code both families share.
using Shared = SharedSlots<OpenVinoLlmModel, Family::Llm, kSettings>;

int32_t InitModel(const char* modelPath, DeviceType device, int32_t contextLength, void** outHandle,
                  const HostCallbacks* callbacks);
inline constexpr auto DestroyModel = &Shared::DestroyModel;
int32_t QueryModel(void* handle, const char* prompt, char** outText);
int32_t StreamModel(void* handle, char* prompt, TextCallback onText);
inline constexpr auto SetConfigProperty = &Shared::SetConfigProperty;
inline constexpr auto GetConfigProperty = &Shared::GetConfigProperty;
int32_t SetStopStrings(void* handle, const char** strings, size_t count);
int32_t GetStopStrings(void* handle, char*** outStrings, size_t* outCount);
int32_t SetStopTokens(void* handle, const int64_t* ids, size_t count);
int32_t GetStopTokens(void* handle, int64_t** outIds, size_t* outCount);
int32_t Tokenize(void* handle, const char* text, int64_t** outIds, size_t* outCount);
inline constexpr auto CancelModel = &Shared::CancelModel;
int32_t CompileModel(const char* modelPath, DeviceType device, int32_t contextLength);

}  // namespace velmora::llm

extern template struct velmora::SharedSlots<velmora::llm::OpenVinoLlmModel, velmora::Family::Llm,
                                            velmora::llm::kSettings>;
