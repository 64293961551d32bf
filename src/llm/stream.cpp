// StreamModel of the LLM table.
#include <cstring>
#include <functional>
#include <memory>
#include <string>

#include "core/reporting.h"
#include "llm_slots.h"
#include "openvino_llm_model.h"

namespace velmora::llm {
namespace {

// Hands each piece to the host as its own NUL-terminated copy; a piece with
// an embedded NUL arrives cut there. True (stop) when the host says so.
std::function<bool(std::string)> HostStreamer(TextCallback onText) {
    return [onText](std::string piece) {
        std::unique_ptr<char[]> text(new char[piece.size() + 1]());
        std::memcpy(text.get(), piece.c_str(), piece.size() + 1);
        return onText(text.get()) != 0;
    };
}

}  // namespace

int32_t StreamModel(void* handle, char* prompt, TextCallback onText) {
    return RunSlot(Family::Llm, handle, NullHandle("streaming model"), [&] {
        auto* model = static_cast<OpenVinoLlmModel*>(handle);
        std::function<bool(std::string)> streamer = HostStreamer(onText);
        Stage([&] { model->validate(); }, {STATUS_FAILED, "Failed to validate config: "}, {STATUS_FAILED, ""});
        model->stream(std::string(prompt), streamer);
        return STATUS_OK;
    });
}

}  // namespace velmora::llm
