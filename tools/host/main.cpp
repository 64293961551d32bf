// The command-line host: one program that drives both tables of the library,
// which it knows only by path and dlopen.
//
//   velmora-host [generate|tokenize|compile|transcribe] [OPTIONS] OPERANDS
//
// Without a subcommand it generates from models/smollm2.
#include <cstdio>
#include <string>
#include <filesystem>
#include <system_error>

#include "commands.h"
#include "interrupt.h"
#include "library.h"
#include "options.h"
#include "progress.h"

namespace cli {

const Subcommand& SubcommandOf(Command id) {
    for (const Subcommand& sub : kSubcommands)
        if (sub.id == id) return sub;
    return kSubcommands[0];
}

// The library installed beside this program (P/bin and P/lib), or the one
// of the build tree it was built in; found from this program's own file
// (argv[0] where /proc is not mounted).
std::string DefaultLibrary(const char* argv0) {
    std::error_code error;
    std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
    if (error) self = std::filesystem::absolute(argv0, error);
    const std::filesystem::path top = self.parent_path().parent_path();
    for (const char* dir : {"lib", "src"}) {
        const auto candidate = top / dir / VELMORA_LIBRARY_NAME;
        if (std::filesystem::exists(candidate, error)) return candidate;
    }
    return (top / "lib" / VELMORA_LIBRARY_NAME).string();
}

// The runtime the library uses is the one in velmora-runtime/ beside it; its
// version is in the name of the runtime package's metadata directory.
std::string RuntimeVersion(const std::string& library) {
    std::error_code error;
    const auto lib = std::filesystem::path(library).parent_path() / "velmora-runtime" / "lib";
    for (const auto& python : std::filesystem::directory_iterator(lib, error))
        for (const auto& entry : std::filesystem::directory_iterator(python.path() / "site-packages", error)) {
            const std::string name = entry.path().filename().string(), prefix = "openvino_genai-",
                              suffix = ".dist-info";
            if (name.rfind(prefix, 0) == 0 && name.size() > prefix.size() + suffix.size() &&
                name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0)
                return "openvino-genai " + name.substr(prefix.size(), name.size() - prefix.size() - suffix.size());
        }
    return "unknown: no velmora-runtime/ beside " + library;
}

int UsageFailure(const char* program, const std::string& error) {
    std::fprintf(stderr, "error: %s\nusage: %s [generate|tokenize|compile|transcribe] [OPTIONS] OPERANDS (--help for more)\n",
                 error.c_str(), program);
    return kUsage;
}

}  // namespace cli

int main(int argc, char** argv) {
    using namespace cli;
    Options options;
    std::string error, info;
    if (!ParseArguments(argc, argv, options, error, info)) {
        if (error.empty()) return std::fputs(info.c_str(), stdout), kOk;
        return UsageFailure(argv[0], error);
    }
    const Subcommand& sub = SubcommandOf(options.command);
    if (options.library.empty()) options.library = DefaultLibrary(argv[0]);
    if (options.version) {
        std::printf("velmora-host %s\nruntime: %s\n", VELMORA_VERSION, RuntimeVersion(options.library).c_str());
        return kOk;
    }
    if (!CheckOptions(options, error)) return UsageFailure(argv[0], error);
    const bool defaultModel = options.model.empty();
    if (defaultModel) options.model = std::string("models/") + sub.defaultModel;
    std::error_code missing;
    if (!std::filesystem::is_directory(options.model, missing)) {
        std::fprintf(stderr, "error: cannot load model '%s': no such directory%s\n", options.model.c_str(),
                     defaultModel ? " (default models are looked for below the working directory; name one with "
                                    "--model DIR)"
                                  : "");
        return kFailed;
    }

    Library library(options.library);
    if (!library.ok()) {
        std::fprintf(stderr, "error: cannot load library '%s': %s\n", options.library.c_str(),
                     library.error().c_str());
        return kFailed;
    }
    InterruptWatcher watcher;
    return sub.run(options, library);
}
