#include "properties.h"

#include <stdexcept>
#include <string>

#include "openvino_bindings.h"

namespace velmora {
namespace fs = std::filesystem;

ov::AnyMap BuildPipelineProperties(const fs::path& modelDirectory, const fs::path& cacheDirectory,
                                   bool blobMustBeAbsent, int32_t contextLength, int32_t deviceType) {
    // These texts, "provide" and "dreictory" included, are this library's own:
    // hosts match them byte for byte.
    if (contextLength < 1) throw std::invalid_argument("The context length must be greater than 0");
    // The throwing overload: a failing status query other than "not found"
    // surfaces as the standard library's filesystem_error.
    if (!fs::is_directory(fs::status(modelDirectory)))
        throw std::invalid_argument("The provided model path is not a directory");
    if (!fs::is_directory(fs::status(cacheDirectory)))
        throw std::invalid_argument("The provide cache directory path is not a directory");

    ov::AnyMap properties;
    if (deviceType != DEVICE_NPU) return properties;
    properties["CACHE_DIR"] = cacheDirectory.string();
    properties["MAX_PROMPT_LEN"] = static_cast<int>(contextLength);

    const bool hasBlob = HasBlobFile(cacheDirectory);
    if (blobMustBeAbsent && hasBlob)
        throw std::invalid_argument("The provided cache directory already contains an unexpected blob file");
    if (!blobMustBeAbsent && !hasBlob)
        throw std::invalid_argument("The provided cache dreictory does not contain an expected blob file");
    return properties;
}

bool HasBlobFile(fs::path directory) {
    static const fs::path blobExtension(".blob");
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(directory)) {
        if (entry.path().extension() == blobExtension) return true;
    }
    return false;
}

}  // namespace velmora
