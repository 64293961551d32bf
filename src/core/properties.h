#pragma once

#include <cstdint>
#include <filesystem>

#include <openvino/core/any.hpp>

namespace velmora {

// Checks the context length and both directories, then builds the LLM
// pipeline properties: empty except for the NPU, which gets "CACHE_DIR" (a
// std::string) and "MAX_PROMPT_LEN" (an int) and needs a blob present (load)
// or absent (compile) below the cache directory.
ov::AnyMap BuildPipelineProperties(const std::filesystem::path& modelDirectory,
                                   const std::filesystem::path& cacheDirectory, bool blobMustBeAbsent,
                                   int32_t contextLength, int32_t deviceType);

// True when an entry at any depth below `directory` has the extension ".blob".
bool HasBlobFile(std::filesystem::path directory);

}  // namespace velmora
