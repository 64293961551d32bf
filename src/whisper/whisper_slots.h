// The functions behind the slots of the Whisper table.
#pragma once

#include "openvino_bindings.h"

namespace velmora::whisper {

int32_t InitModel(const char* modelPath, DeviceType device, void** outHandle, const HostCallbacks* callbacks);
int32_t DestroyModel(void* handle);
int32_t QueryModel(void* handle, const float* samples, int32_t sampleCount, char** outText);
int32_t SetConfigProperty(void* handle, const char* name, const char* value);
int32_t GetConfigProperty(void* handle, const char* name, char** outValue);
int32_t GetLangToId(void* handle, LangIdPair** outPairs, size_t* outCount);
int32_t SetLangToId(void* handle, const LangIdPair* pairs, size_t count);
int32_t GetBeginSuppressTokens(void* handle, int64_t** outIds, size_t* outCount);
int32_t SetBeginSuppressTokens(void* handle, const int64_t* ids, size_t count);
int32_t GetSuppressTokens(void* handle, int64_t** outIds, size_t* outCount);
int32_t SetSuppressTokens(void* handle, const int64_t* ids, size_t count);
int32_t CancelModel(void* handle);

}  // namespace velmora::whisper
