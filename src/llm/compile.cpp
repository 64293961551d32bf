// CompileModel of the LLM table.
#include <filesystem>
#include <string>

#include "core/device.h"
#include "core/properties.h"
#include "core/reporting.h"
#include "genai/pipelines.h"
#include "llm_slots.h"

namespace velmora::llm {

// For the NPU the runtime compiles the model into the directory, its cache;
// the pipeline itself is not kept.
int32_t CompileModel(const char* modelPath, DeviceType device, int32_t contextLength) {
    return RunSlot(Family::Llm, nullptr, nullptr, [&] {
        Stage(
            [&] {
                const std::filesystem::path directory{std::string(modelPath)};
                const ov::AnyMap properties = BuildPipelineProperties(directory, directory, true, contextLength, device);
                genai::LLMPipeline(directory, DeviceName(device), properties);
            },
            {STATUS_FAILED, "An exception occurred while compiling the model: "});
        return STATUS_OK;
    });
}

}  // namespace velmora::llm
