// The functions behind the slots of the Whisper table.
#pragma once

#include "core/shared_slots.h"
#include "openvino_bindings.h"
#include "whisper_settings.h"

namespace velmora::whisper {

class OpenVinoWhisperModel;
// DestroyModel, the settings by name and CancelModel: the code both families share.
using Shared = SharedSlots<OpenVinoWhisperModel, Family::Whisper, kSettings>;

int32_t InitModel(const char* modelPath, DeviceType device, void** outHandle, const HostCallbacks* callbacks);
inline constexpr auto DestroyModel = &Shared::DestroyModel;
int32_t QueryModel(void* handle, const float* samples, int32_t sampleCount, char** outText);
inline constexpr auto SetConfigProperty = &Shared::SetConfigProperty;
inline constexpr auto GetConfigProperty = &Shared::GetConfigProperty;
int32_t GetLangToId(void* handle, LangIdPair** outPairs, size_t* outCount);
int32_t SetLangToId(void* handle, const LangIdPair* pairs, size_t count);
int32_t GetBeginSuppressTokens(void* handle, int64_t** outIds, size_t* outCount);
int32_t SetBeginSuppressTokens(void* handle, const int64_t* ids, size_t count);
int32_t GetSuppressTokens(void* handle, int64_t** outIds, size_t* outCount);
int32_t SetSuppressTokens(void* handle, const int64_t* ids, size_t count);
inline constexpr auto CancelModel = &Shared::CancelModel;

}  // namespace velmora::whisper

extern template struct velmora::SharedSlots<velmora::whisper::OpenVinoWhisperModel, velmora::Family::Whisper,
                                            velmora::whisper::kSettings>;
