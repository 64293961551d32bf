// Moves the kept members between their C++ values and the runtime's object.
#include "runtime_config.h"

#include <pybind11/stl.h>

#include "python.h"

namespace velmora::genai {
namespace {

template <class T>
void FromPython(const py::handle& value, T& member) {
    member = value.cast<T>();
}

void FromPython(const py::handle& value, float& member) {
    member = static_cast<float>(value.cast<double>());  // the runtime stores a float: exact
}

void FromPython(const py::handle& value, StopCriteria& member) {
    member = static_cast<StopCriteria>(value.attr("value").cast<int>());
}

template <class T>
py::object ToPython(const T& member) {
    return py::cast(member);
}

py::object ToPython(const float& member) { return py::float_(static_cast<double>(member)); }

py::object ToPython(const StopCriteria& member) {
    return GenaiModule().attr("StopCriteria")(static_cast<int>(member));
}

// The runtime takes sets, not the lists pybind11 makes of std::set.
py::object ToPython(const std::set<std::string>& member) {
    py::set values;
    for (const std::string& value : member) values.add(py::str(value));
    return std::move(values);
}

py::object ToPython(const std::set<int64_t>& member) {
    py::set values;
    for (int64_t value : member) values.add(py::int_(value));
    return std::move(values);
}

}  // namespace

void Pull(const py::object& object, RuntimeConfig& config) {
    for (auto& [name, value] : config.members)
        std::visit([&, name = name](auto& member) { FromPython(object.attr(name), member); }, value);
    config.origin = std::make_shared<RuntimeObject>(object);
}

py::object Materialize(const RuntimeConfig& config) {
    py::object object = config.origin ? config.origin->get() : GenaiModule().attr(config.className)();
    for (const auto& [name, value] : config.members)
        object.attr(name) = std::visit([](const auto& member) { return ToPython(member); }, value);
    return object;
}

void Validate(const RuntimeConfig& config) {
    WithRuntime([&] { Materialize(config).attr("validate")(); });
}

}  // namespace velmora::genai
