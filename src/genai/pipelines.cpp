#include "pipelines.h"

#include <pybind11/numpy.h>
#include <pybind11/stl.h>

#include <exception>

#include "python.h"

namespace velmora::genai {
namespace {

// Builds the Python callable handed to the runtime. The host's code runs
// without the interpreter lock, so other handles keep generating meanwhile.
// A C++ exception must not escape into the runtime (it would be logged and
// dropped there): it stops generation and is rethrown after generate returns.
struct StreamerBridge {
    Streamer streamer;
    std::exception_ptr failure;
};

py::object MakeStreamer(const Streamer& streamer, std::shared_ptr<StreamerBridge>& bridge) {
    if (!streamer) return py::none();
    bridge = std::make_shared<StreamerBridge>(StreamerBridge{streamer, nullptr});
    return py::cpp_function([bridge](std::string piece) -> bool {
        py::gil_scoped_release unlocked;
        try {
            return bridge->streamer(std::move(piece));
        } catch (...) {
            bridge->failure = std::current_exception();
            return true;
        }
    });
}

std::vector<std::string> RunGenerate(const py::object& pipeline, py::object inputs, const RuntimeConfig& config,
                                     const Streamer& streamer) {
    std::shared_ptr<StreamerBridge> bridge;
    py::object callback = MakeStreamer(streamer, bridge);
    py::object results = pipeline.attr("generate")(inputs, Materialize(config), py::arg("streamer") = callback);
    if (bridge && bridge->failure) std::rethrow_exception(bridge->failure);
    return results.attr("texts").cast<std::vector<std::string>>();
}

std::shared_ptr<RuntimeObject> LoadPipeline(const char* className, const std::filesystem::path& path,
                                            const std::string& device, const ov::AnyMap& properties) {
    return WithRuntime([&] {
        py::object pipeline = GenaiModule().attr(className)(PathToPython(path), device, **ToKeywords(properties));
        return std::make_shared<RuntimeObject>(std::move(pipeline));
    });
}

void ReadConfig(const RuntimeObject& pipeline, RuntimeConfig& config) {
    WithRuntime([&] { Pull(pipeline.get().attr("get_generation_config")(), config); });
}

}  // namespace

LLMPipeline::LLMPipeline(const std::filesystem::path& models_path, const std::string& device,
                         const ov::AnyMap& properties)
    : object_(LoadPipeline("LLMPipeline", models_path, device, properties)) {}

std::vector<std::string> LLMPipeline::generate(const std::vector<std::string>& prompts, const RuntimeConfig& config,
                                               const Streamer& streamer) {
    return WithRuntime([&] {
        if (streamer) EnsureDetokenizer();
        return RunGenerate(object_->get(), py::cast(prompts), config, streamer);
    });
}

// The runtime decodes streamed tokens on a thread of its own, where a missing
// detokenizer ends the process instead of the call. Decoding nothing here
// raises the same assertion where it can be reported.
void LLMPipeline::EnsureDetokenizer() {
    if (decodes_) return;
    object_->get().attr("get_tokenizer")().attr("decode")(py::list());
    decodes_ = true;
}

void LLMPipeline::read_generation_config(RuntimeConfig& config) const { ReadConfig(*object_, config); }

std::vector<int64_t> LLMPipeline::tokenize(const std::string& text) {
    return WithRuntime([&] {
        py::object encoded = object_->get().attr("get_tokenizer")().attr("encode")(py::cast(std::vector<std::string>{text}));
        py::array_t<int64_t, py::array::c_style | py::array::forcecast> ids(encoded.attr("input_ids").attr("data"));
        return std::vector<int64_t>(ids.data(), ids.data() + ids.size());
    });
}

WhisperPipeline::WhisperPipeline(const std::filesystem::path& models_path, const std::string& device,
                                 const ov::AnyMap& properties)
    : object_(LoadPipeline("WhisperPipeline", models_path, device, properties)) {}

std::vector<std::string> WhisperPipeline::generate(const float* samples, std::size_t count,
                                                   const RuntimeConfig& config, const Streamer& streamer) {
    return WithRuntime([&] {
        // A view of the caller's samples, not a copy: the runtime reads them during
        // this call only. An empty block has no data to view (and a capsule may not
        // hold null), so it goes as an empty array of its own for the runtime to judge.
        py::array_t<float> view = count == 0 ? py::array_t<float>(0)
                                             : py::array_t<float>(static_cast<py::ssize_t>(count), samples,
                                                                  py::capsule(samples, [](void*) {}));
        return RunGenerate(object_->get(), view, config, streamer);
    });
}

void WhisperPipeline::read_generation_config(RuntimeConfig& config) const { ReadConfig(*object_, config); }

}  // namespace velmora::genai
