// CompileModel of the LLM table.
#include <filesystem>
#include <sstream>
#include <string>

#include "api/reporting.h"
#include "genai/pipelines.h"
#include "llm_slots.h"
#include "pipeline/device.h"
#include "pipeline/properties.h"

namespace velmora::llm {
namespace {

// For the NPU the runtime compiles the model into the directory, its cache;
// the pipeline itself is not kept.
void CompileModelDirectory(std::string modelPath, int32_t deviceType, int32_t contextLength) {
    const std::filesystem::path directory(modelPath);
    const ov::AnyMap properties = BuildPipelineProperties(directory, directory, true, contextLength, deviceType);
    const std::string device = DeviceName(deviceType);
    genai::LLMPipeline(directory, device, properties);
}

}  // namespace

int32_t CompileModel(const char* modelPath, DeviceType device, int32_t contextLength) {
    return RunSlot(Family::Llm, nullptr, nullptr, "", [&] {
        try {
            CompileModelDirectory(std::string(modelPath), device, contextLength);
        } catch (const std::exception& e) {
            std::ostringstream message;
            message << "An exception occurred while compiling the model: " << TextOf(e);
            throw SlotFailure(1, message.str());
        }
        return 0;
    });
}

}  // namespace velmora::llm
