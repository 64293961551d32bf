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

// With a `decoder` (a tokenizer), the pieces are decoded by it rather than by
// the pipeline's own tokenizer: see LLMPipeline::StreamDecoder.
py::object MakeStreamer(const Streamer& streamer, const py::object& decoder,
                        std::shared_ptr<StreamerBridge>& bridge) {
    if (!streamer) return py::none();
    bridge = std::make_shared<StreamerBridge>(StreamerBridge{streamer, nullptr});
    py::object callback = py::cpp_function([bridge](std::string piece) -> bool {
        py::gil_scoped_release unlocked;
        try {
            return bridge->streamer(std::move(piece));
        } catch (...) {
            bridge->failure = std::current_exception();
            return true;
        }
    });
    return decoder.is_none() ? callback : GenaiModule().attr("TextStreamer")(decoder, callback);
}

std::vector<std::string> RunGenerate(const py::object& pipeline, py::object inputs, const RuntimeConfig& config,
                                     const Streamer& streamer, const py::object& decoder = py::none()) {
    std::shared_ptr<StreamerBridge> bridge;
    py::object callback = MakeStreamer(streamer, decoder, bridge);
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

std::shared_ptr<RuntimeObject> LoadTokenizer(const std::filesystem::path& path) {
    return WithRuntime([&] {
        return std::make_shared<RuntimeObject>(GenaiModule().attr("Tokenizer")(PathToPython(path)));
    });
}

void ReadConfig(const RuntimeObject& pipeline, RuntimeConfig& config) {
    WithRuntime([&] { Pull(pipeline.get().attr("get_generation_config")(), config); });
}

}  // namespace

// The streaming tokenizer is made before the pipeline: a tokenizer gives back
// a decoder request from another thread a moment after it is made, and a
// decode meeting that moment can lose the same wake-up (see StreamDecoder).
// Loading the pipeline takes far longer than that moment. If the tokenizer
// cannot be made, the pipeline reports the model's faults in its own words
// and the first generation tries again.
LLMPipeline::LLMPipeline(const std::filesystem::path& models_path, const std::string& device,
                         const ov::AnyMap& properties)
    : models_path_(models_path) {
    try {
        stream_decoder_ = LoadTokenizer(models_path);
    } catch (const std::exception&) {
        stream_decoder_.reset();
    }
    object_ = LoadPipeline("LLMPipeline", models_path, device, properties);
}

std::vector<std::string> LLMPipeline::generate(const std::vector<std::string>& prompts, const RuntimeConfig& config,
                                               const Streamer& streamer) {
    return WithRuntime([&] {
        const py::object decoder = streamer ? StreamDecoder().get() : py::none();
        return RunGenerate(object_->get(), py::cast(prompts), config, streamer, decoder);
    });
}

// The tokenizer that decodes streamed pieces: one of this handle's own, never
// the pipeline's. The runtime decodes pieces on its streaming thread while its
// sampler decodes on another to match stop strings, and two threads decoding
// with one tokenizer at once can lose a wake-up inside the runtime's pool of
// decoder requests: the sampler then waits forever and the generation never
// returns. With a tokenizer each, no decoder is ever shared between threads.
// Decoding nothing once, before the first generation, turns a missing
// detokenizer (which would end the process on the streaming thread) into an
// error this call reports.
const RuntimeObject& LLMPipeline::StreamDecoder() {
    if (!stream_decoder_) stream_decoder_ = LoadTokenizer(models_path_);
    if (!decodes_) {
        stream_decoder_->get().attr("decode")(py::list());
        decodes_ = true;
    }
    return *stream_decoder_;
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
