// Internal to the bridge: the embedded interpreter and its conversions.
// Nothing outside src/genai includes this file.
#pragma once

#include <pybind11/pybind11.h>

#include <filesystem>
#include <string>
#include <utility>

#include <openvino/core/any.hpp>

namespace py = pybind11;

namespace velmora::genai {

// Holds one Python object; dropped with the interpreter lock held.
class RuntimeObject {
public:
    explicit RuntimeObject(py::object object) : object_(std::move(object)) {}
    ~RuntimeObject();
    RuntimeObject(const RuntimeObject&) = delete;
    RuntimeObject& operator=(const RuntimeObject&) = delete;
    const py::object& get() const { return object_; }

private:
    py::object object_;
};

// Starts the interpreter (or joins the host's) and imports the runtime once.
void EnsureRuntime();

// The imported runtime module; valid after EnsureRuntime, lock held.
py::module_& GenaiModule();

// Rethrows a Python error as the C++ exception the runtime raised: an
// assertion as ov::AssertFailure, anything else as std::runtime_error, with
// the text unchanged.
[[noreturn]] void RethrowRuntimeError(py::error_already_set& error);

// Runs `call` with the runtime started and the lock held.
template <class Call>
decltype(auto) WithRuntime(Call&& call) {
    EnsureRuntime();
    py::gil_scoped_acquire gil;
    try {
        return std::forward<Call>(call)();
    } catch (py::error_already_set& error) {
        RethrowRuntimeError(error);
    }
}

py::dict ToKeywords(const ov::AnyMap& properties);
py::str PathToPython(const std::filesystem::path& path);

struct RuntimeConfig;
// Reads every kept member of `config` (each value's type says how) from the
// runtime's object, which becomes its origin.
void Pull(const py::object& object, RuntimeConfig& config);
// The object the runtime sees: the origin with the kept members written over
// it, or fresh defaults for a config never loaded. Lock held.
py::object Materialize(const RuntimeConfig& config);

}  // namespace velmora::genai
