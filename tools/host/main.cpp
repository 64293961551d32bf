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

}  // namespace cli

int main(int argc, char** argv) {
    using namespace cli;
    Options options;
    std::string error, info;
    if (!ParseArguments(argc, argv, options, error, info)) {
        if (error.empty()) return std::fputs(info.c_str(), stdout), kOk;
        std::fprintf(stderr, "error: %s\n%s", error.c_str(), Usage(argv[0]).c_str());
        return kUsage;
    }
    const Subcommand& sub = SubcommandOf(options.command);
    if (options.library.empty()) options.library = DefaultLibrary(argv[0]);
    if (options.model.empty()) options.model = std::string("models/") + sub.defaultModel;

    Library library(options.library);
    if (!library.ok()) {
        std::fprintf(stderr, "error: cannot load library '%s': %s\n", options.library.c_str(),
                     library.error().c_str());
        return kFailed;
    }
    InterruptWatcher watcher;
    return sub.run(options, library);
}
