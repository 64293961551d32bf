// The functions behind the slots of the LLM table.
#pragma once

#include "openvino_bindings.h"

namespace velmora::llm {

int32_t InitModel(const char* modelPath, DeviceType device, int32_t contextLength, void** outHandle,
                  const HostCallbacks* callbacks);
int32_t DestroyModel(void* handle);
int32_t QueryModel(void* handle, const char* prompt, char** outText);
int32_t StreamModel(void* handle, char* prompt, TextCallback onText);
int32_t SetConfigProperty(void* handle, const char* name, const char* value);
int32_t GetConfigProperty(void* handle, const char* name, char** outValue);
int32_t SetStopStrings(void* handle, const char** strings, size_t count);
int32_t GetStopStrings(void* handle, char*** outStrings, size_t* outCount);
int32_t SetStopTokens(void* handle, const int64_t* ids, size_t count);
int32_t GetStopTokens(void* handle, int64_t** outIds, size_t* outCount);
int32_t Tokenize(void* handle, const char* text, int64_t** outIds, size_t* outCount);
int32_t CancelModel(void* handle);
int32_t CompileModel(const char* modelPath, DeviceType device, int32_t contextLength);

}  // namespace velmora::llm
