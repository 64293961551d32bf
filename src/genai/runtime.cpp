#include <dlfcn.h>

#include <mutex>
#include <stdexcept>
#include <string>

#include <openvino/core/except.hpp>

#include "python.h"
#include "runtime_location.h"

namespace velmora::genai {
namespace {

py::module_* genaiModule = nullptr;  // never released: the interpreter is never finalized

// Extensions imported later resolve libpython's symbols globally; a host that
// loaded us with RTLD_LOCAL would otherwise make those imports fail.
void PromoteLibpythonSymbols() {
    dlopen(VELMORA_LIBPYTHON_SONAME, RTLD_NOW | RTLD_GLOBAL | RTLD_NOLOAD);
}

void Check(PyStatus status) {
    if (PyStatus_Exception(status))
        throw std::runtime_error(std::string("Python runtime could not start: ") +
                                 (status.err_msg != nullptr ? status.err_msg : "unknown reason"));
}

// Isolated: no environment variables, no user site, no locale or signal
// changes in the host process. The executable locates the environment.
void StartInterpreter() {
    PyPreConfig preconfig;
    PyPreConfig_InitIsolatedConfig(&preconfig);
    preconfig.utf8_mode = 1;
    Check(Py_PreInitialize(&preconfig));

    PyConfig config;
    PyConfig_InitIsolatedConfig(&config);
    config.install_signal_handlers = 0;
    struct Clear {
        PyConfig* c;
        ~Clear() { PyConfig_Clear(c); }
    } clear{&config};
    Check(PyConfig_SetBytesString(&config, &config.executable, VELMORA_PYTHON_EXECUTABLE));
    Check(PyConfig_SetBytesString(&config, &config.program_name, VELMORA_PYTHON_EXECUTABLE));
    Check(Py_InitializeFromConfig(&config));
}

// Makes the build's environment visible also to a host interpreter that does
// not already see the runtime packages.
void ImportRuntime() {
    py::module_ site = py::module_::import("site");
    py::list path = py::module_::import("sys").attr("path");
    if (!path.contains(VELMORA_PYTHON_SITE_PACKAGES)) site.attr("addsitedir")(VELMORA_PYTHON_SITE_PACKAGES);
    genaiModule = new py::module_(py::module_::import("openvino_genai"));
    py::module_::import("numpy");
}

void Start() {
    if (Py_IsInitialized()) {
        py::gil_scoped_acquire gil;
        try {
            ImportRuntime();
        } catch (py::error_already_set& error) {
            RethrowRuntimeError(error);
        }
        return;
    }
    PromoteLibpythonSymbols();
    StartInterpreter();
    // Let any thread take the lock from now on, also after a failed import.
    struct ReleaseLock {
        ~ReleaseLock() { PyEval_SaveThread(); }
    } release;
    try {
        ImportRuntime();
    } catch (py::error_already_set& error) {
        RethrowRuntimeError(error);
    }
}

// ov::AssertFailure can only be built by a derived class.
class RuntimeAssertion : public ov::AssertFailure {
public:
    explicit RuntimeAssertion(const std::string& text) : ov::AssertFailure(text) {}
};

}  // namespace

RuntimeObject::~RuntimeObject() {
    py::gil_scoped_acquire gil;
    object_ = py::object();
}

void EnsureRuntime() {
    static std::once_flag started;
    std::call_once(started, Start);  // a failed start throws and is retried next time
}

py::module_& GenaiModule() { return *genaiModule; }

void RethrowRuntimeError(py::error_already_set& error) {
    std::string text = py::str(error.value());
    // The runtime's assertion texts begin this way; every other error does not.
    if (text.rfind("Check '", 0) == 0) throw RuntimeAssertion(text);
    throw std::runtime_error(text);
}

py::dict ToKeywords(const ov::AnyMap& properties) {
    py::dict keywords;
    for (const auto& [name, value] : properties) {
        if (value.is<std::string>())
            keywords[py::str(name)] = py::str(value.as<std::string>());
        else if (value.is<int>())
            keywords[py::str(name)] = py::int_(value.as<int>());
        else if (value.is<bool>())
            keywords[py::str(name)] = py::bool_(value.as<bool>());
        else
            throw std::invalid_argument("Unsupported value type for property " + name);
    }
    return keywords;
}

// Paths keep their bytes: decoded with surrogate escapes, encoded back the same way.
py::str PathToPython(const std::filesystem::path& path) {
    const std::string& bytes = path.native();
    PyObject* text = PyUnicode_DecodeFSDefaultAndSize(bytes.data(), static_cast<Py_ssize_t>(bytes.size()));
    if (text == nullptr) throw py::error_already_set();
    return py::reinterpret_steal<py::str>(text);
}

}  // namespace velmora::genai
