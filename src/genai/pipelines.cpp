#include "pipelines.h"

#include <pybind11/numpy.h>
#include <pybind11/stl.h>

#include <cstring>
#include <exception>

#include "config_mirror.h"

namespace velmora::genai {
namespace {

// Builds the Python callable handed to the runtime. The host's code runs
// without the interpreter lock, so other handles keep generating meanwhile.
// A C++ exception must not escape into the runtime (it would be logged and
// dropped there): it stops generation and is rethrown after generate returns.
struct StreamerBridge {
    std::function<bool(std::string)> streamer;
    std::exception_ptr failure;
};

py::object MakeStreamer(const StreamerVariant& variant, std::shared_ptr<StreamerBridge>& bridge) {
    const auto* streamer = std::get_if<std::function<bool(std::string)>>(&variant);
    if (streamer == nullptr || !*streamer) return py::none();
    bridge = std::make_shared<StreamerBridge>(StreamerBridge{*streamer, nullptr});
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

std::vector<std::string> Texts(const py::object& results) {
    return results.attr("texts").cast<std::vector<std::string>>();
}

std::vector<float> Scores(const py::object& results) {
    return results.attr("scores").cast<std::vector<float>>();
}

// Copies a runtime tensor of the Python binding into a C++ ov::Tensor.
ov::Tensor ToTensor(const py::object& tensor) {
    py::array_t<int64_t, py::array::c_style | py::array::forcecast> data(tensor.attr("data"));
    ov::Shape shape(data.shape(), data.shape() + data.ndim());
    ov::Tensor result(ov::element::i64, shape);
    if (data.size() != 0) std::memcpy(result.data(ov::element::i64), data.data(), data.nbytes());
    return result;
}

py::object RunGenerate(const py::object& pipeline, py::object inputs, py::object config,
                       const StreamerVariant& streamer) {
    std::shared_ptr<StreamerBridge> bridge;
    py::object callback = MakeStreamer(streamer, bridge);
    py::object results = pipeline.attr("generate")(inputs, config, py::arg("streamer") = callback);
    if (bridge && bridge->failure) std::rethrow_exception(bridge->failure);
    return results;
}

}  // namespace

Tokenizer::Tokenizer(std::shared_ptr<RuntimeObject> object) : object_(std::move(object)) {}

TokenizedInputs Tokenizer::encode(const std::vector<std::string>& texts, const ov::AnyMap& options) {
    return WithRuntime([&] {
        py::object encoded = object_->get().attr("encode")(py::cast(texts), **ToKeywords(options));
        return TokenizedInputs{ToTensor(encoded.attr("input_ids")), ToTensor(encoded.attr("attention_mask"))};
    });
}

LLMPipeline::LLMPipeline(const std::filesystem::path& models_path, const std::string& device,
                         const ov::AnyMap& properties) {
    object_ = WithRuntime([&] {
        py::object pipeline = GenaiModule().attr("LLMPipeline")(PathToPython(models_path), device, **ToKeywords(properties));
        return std::make_shared<RuntimeObject>(std::move(pipeline));
    });
}

DecodedResults LLMPipeline::generate(const StringInputs& inputs, const OptionalGenerationConfig& generation_config,
                                     const StreamerVariant& streamer) {
    return WithRuntime([&] {
        py::object pyInputs = std::visit([](const auto& value) { return py::object(py::cast(value)); }, inputs);
        py::object config = generation_config ? ToRuntime(*generation_config) : py::none();
        if (!std::holds_alternative<std::monostate>(streamer)) EnsureDetokenizer();
        py::object results = RunGenerate(object_->get(), pyInputs, config, streamer);
        if (py::isinstance<py::str>(results)) return DecodedResults{{results.cast<std::string>()}, {}};
        return DecodedResults{Texts(results), Scores(results)};
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

GenerationConfig LLMPipeline::get_generation_config() const {
    return WithRuntime([&] { return FromRuntime(object_->get().attr("get_generation_config")(), (GenerationConfig*)nullptr); });
}

Tokenizer LLMPipeline::get_tokenizer() {
    return WithRuntime([&] { return Tokenizer(std::make_shared<RuntimeObject>(object_->get().attr("get_tokenizer")())); });
}

WhisperPipeline::WhisperPipeline(const std::filesystem::path& models_path, const std::string& device,
                                 const ov::AnyMap& properties) {
    object_ = WithRuntime([&] {
        py::object pipeline =
            GenaiModule().attr("WhisperPipeline")(PathToPython(models_path), device, **ToKeywords(properties));
        return std::make_shared<RuntimeObject>(std::move(pipeline));
    });
}

WhisperDecodedResults WhisperPipeline::generate(const std::vector<float>& raw_speech,
                                                const std::optional<WhisperGenerationConfig>& generation_config,
                                                const StreamerVariant& streamer) {
    return WithRuntime([&] {
        // A view of the caller's samples, not a copy: the runtime reads them during
        // this call only. An empty block has no data to view (and a capsule may not
        // hold null), so it goes as an empty array of its own for the runtime to judge.
        py::array_t<float> samples =
            raw_speech.empty() ? py::array_t<float>(0)
                               : py::array_t<float>(static_cast<py::ssize_t>(raw_speech.size()), raw_speech.data(),
                                                    py::capsule(raw_speech.data(), [](void*) {}));
        py::object config = generation_config ? ToRuntime(*generation_config) : py::none();
        py::object results = RunGenerate(object_->get(), samples, config, streamer);
        return WhisperDecodedResults{Texts(results), Scores(results)};
    });
}

WhisperGenerationConfig WhisperPipeline::get_generation_config() const {
    return WithRuntime(
        [&] { return FromRuntime(object_->get().attr("get_generation_config")(), (WhisperGenerationConfig*)nullptr); });
}

}  // namespace velmora::genai
