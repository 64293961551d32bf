#include <dlfcn.h>
#include <link.h>

#include <filesystem>
#include <mutex>
#include <stdexcept>
#include <string>

#include <openvino/core/except.hpp>
#include <openvino/core/version.hpp>

#include "python.h"
#include "runtime_layout.h"

namespace velmora::genai {
namespace {

namespace fs = std::filesystem;

py::module_* genaiModule = nullptr;  // never released: the interpreter is never finalized

constexpr const char* kEmbedded = VELMORA_PYTHON_VERSION;

// "3.10" from "3.10.13 (main, ...)" or from "libpython3.10.so.1.0".
std::string MajorMinor(const std::string& text, std::size_t from) {
    const std::size_t dot = text.find('.', from);
    if (dot == std::string::npos) return text.substr(from);
    const std::size_t end = text.find_first_not_of("0123456789", dot + 1);
    return text.substr(from, end == std::string::npos ? std::string::npos : end - from);
}

int FindForeignLibpython(dl_phdr_info* info, size_t, void* found) {
    const std::string name = fs::path(info->dlpi_name != nullptr ? info->dlpi_name : "").filename();
    constexpr const char* prefix = "libpython";
    if (name.rfind(prefix, 0) != 0) return 0;
    const std::string version = MajorMinor(name, std::char_traits<char>::length(prefix));
    // libpython3.so, the stable-ABI shim, names no minor version.
    if (version == kEmbedded || version.back() == '.') return 0;
    *static_cast<std::string*>(found) = version;
    return 1;
}

// Another interpreter in the process shares symbol names with ours: calling
// into either would mix two ABIs. Two tells, checked before any Python state
// is touched: our Py_GetVersion binding to a host's exported interpreter, or
// another libpython loaded beside ours.
void RefuseForeignInterpreter() {
    std::string running = MajorMinor(Py_GetVersion(), 0);
    if (running == kEmbedded) dl_iterate_phdr(FindForeignLibpython, &running);
    if (running != kEmbedded)
        throw std::runtime_error(std::string("Python runtime could not start: this library embeds Python ") +
                                 kEmbedded + ", but this process runs Python " + running);
}

// "2025.3.0" from "2025.3.0.0-2463-..." or "2025.3.0-19807-...": the release.
std::string ReleaseOf(const std::string& version) {
    std::size_t end = 0;
    for (int part = 0; part < 3 && end < version.size(); ++part) {
        end = version.find_first_not_of("0123456789", end);
        if (part < 2 && end != std::string::npos && version[end] == '.') ++end;
    }
    return version.substr(0, end);
}

const std::string& OurRelease() {
    static const std::string release = std::to_string(OPENVINO_VERSION_MAJOR) + "." +
                                       std::to_string(OPENVINO_VERSION_MINOR) + "." +
                                       std::to_string(OPENVINO_VERSION_PATCH);
    return release;
}

void RefuseRelease(const std::string& theirs, const char* where) {
    if (ReleaseOf(theirs) != OurRelease())
        throw std::runtime_error("OpenVINO runtime could not start: this library runs OpenVINO " + OurRelease() +
                                 ", but " + where + " OpenVINO " + ReleaseOf(theirs));
}

// Two releases of the runtime in one process share symbol names: the
// pipelines of one would run beside, or on top of, the core of the other. A
// host's own release is refused before anything of ours is imported: the one
// it imported already, or the one its interpreter would import.
void RefuseForeignRuntime(bool joined) {
    RefuseRelease(ov::get_openvino_version().buildNumber, "this process has loaded");
    if (!joined) return;
    const py::dict modules = py::module_::import("sys").attr("modules");
    for (const char* name : {"openvino_genai", "openvino"}) {
        if (modules.contains(name) && py::hasattr(modules[name], "__version__")) {
            RefuseRelease(py::str(modules[name].attr("__version__")), "this process has already imported");
            return;
        }
    }
    if (!py::module_::import("importlib.util").attr("find_spec")("openvino_genai").is_none())
        RefuseRelease(py::str(py::module_::import("importlib.metadata").attr("version")("openvino-genai")),
                      "this process's Python carries");
}

// The runtime folder lies beside the library's own file, wherever the install
// was moved; the symbol's address tells which file that is.
fs::path RuntimeFolder() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&RuntimeFolder), &info) == 0 || info.dli_fname == nullptr)
        throw std::runtime_error("Python runtime could not start: the library cannot find its own file");
    std::error_code error;
    fs::path self = fs::canonical(info.dli_fname, error);
    if (error) self = fs::absolute(info.dli_fname);
    return self.parent_path() / VELMORA_RUNTIME_FOLDER;
}

fs::path SitePackages(const fs::path& folder) { return folder / "lib" / VELMORA_STDLIB_DIR / "site-packages"; }

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
// changes in the host process. The runtime folder is the interpreter's home,
// and nothing is written into it.
void StartInterpreter() {
    const fs::path home = RuntimeFolder();
    if (!fs::is_regular_file(home / "lib" / VELMORA_STDLIB_DIR / "os.py"))
        throw std::runtime_error("Python runtime could not start: no runtime folder at " + home.string());
    PyPreConfig preconfig;
    PyPreConfig_InitIsolatedConfig(&preconfig);
    preconfig.utf8_mode = 1;
    Check(Py_PreInitialize(&preconfig));

    PyConfig config;
    PyConfig_InitIsolatedConfig(&config);
    config.install_signal_handlers = 0;
    config.write_bytecode = 0;
    struct Clear {
        PyConfig* c;
        ~Clear() { PyConfig_Clear(c); }
    } clear{&config};
    Check(PyConfig_SetBytesString(&config, &config.home, home.c_str()));
    Check(Py_InitializeFromConfig(&config));
}

// A host interpreter that does not see the runtime packages itself gets the
// runtime folder's; one that does keeps its own, so one copy is loaded.
void ImportRuntime(bool joined) {
    if (joined && py::module_::import("importlib.util").attr("find_spec")("openvino_genai").is_none()) {
        const fs::path site = SitePackages(RuntimeFolder());
        if (fs::is_directory(site)) py::module_::import("site").attr("addsitedir")(PathToPython(site));
    }
    genaiModule = new py::module_(py::module_::import("openvino_genai"));
    // The runtime sets up its NumPy conversions on first use, inside a static
    // initialiser that needs the interpreter lock: two handles tokenizing for
    // the first time on two threads could each wait for the other. Done once
    // here, under the start's lock, no later call can meet it.
    py::module_ numpy = py::module_::import("numpy");
    py::module_::import("openvino").attr("Tensor")(numpy.attr("zeros")(py::make_tuple(1, 1), "int64")).attr("data");
}

void Start() {
    RefuseForeignInterpreter();
    if (Py_IsInitialized()) {
        py::gil_scoped_acquire gil;
        try {
            RefuseForeignRuntime(true);
            ImportRuntime(true);
        } catch (py::error_already_set& error) {
            RethrowRuntimeError(error);
        }
        return;
    }
    RefuseForeignRuntime(false);
    PromoteLibpythonSymbols();
    StartInterpreter();
    // Let any thread take the lock from now on, also after a failed import.
    struct ReleaseLock {
        ~ReleaseLock() { PyEval_SaveThread(); }
    } release;
    try {
        ImportRuntime(false);
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
