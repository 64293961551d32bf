// The command-line host: one program that drives both tables of the library,
// which it knows only by path and dlopen.
//
//   velmora-host [generate|tokenize|compile|transcribe] [OPTIONS] OPERANDS
//
// Without a subcommand it generates from models/smollm2.
#include <cstdio>
#include <string>

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
    if (options.library.empty()) options.library = VELMORA_DEFAULT_LIBRARY;
    if (options.model.empty()) options.model = std::string(VELMORA_MODELS_DIR "/") + sub.defaultModel;

    Library library(options.library);
    if (!library.ok()) {
        std::fprintf(stderr, "error: cannot load library '%s': %s\n", options.library.c_str(),
                     library.error().c_str());
        return kFailed;
    }
    InterruptWatcher watcher;
    return sub.run(options, library);
}
