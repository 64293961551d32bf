#include "options.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include <iterator>

#include "commands.h"
#include "report.h"

namespace cli {
namespace {

#define CLI_TEXT_OF(x) #x
#define CLI_TEXT(x) CLI_TEXT_OF(x)

constexpr unsigned kLlm = kGenerate | kTokenize | kCompile;
constexpr unsigned kAny = kLlm | kTranscribe;

bool ParseInt64(const char* text, int64_t& out) {
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0') return false;
    out = value;
    return true;
}

bool ParseInt32(const char* text, int32_t& out) {
    int64_t value = 0;
    if (!ParseInt64(text, value) || value < INT32_MIN || value > INT32_MAX) return false;
    out = static_cast<int32_t>(value);
    return true;
}

// A device name, or a number handed to the library as is so that it judges it.
bool ParseDevice(const char* text, int32_t& out) {
    for (int32_t i = 0; i < static_cast<int32_t>(std::size(kDevices)); ++i)
        if (strcasecmp(text, kDevices[i]) == 0) return out = i, true;
    return ParseInt32(text, out);
}

struct Option {
    const char* name;
    const char* metavar;  // nullptr: a flag without value
    unsigned commands;
    const char* help;
    // Returns false when the value is malformed.
    bool (*apply)(Options&, const char* value);
};

const Option kOptions[] = {
    {"--library", "PATH", kAny, "the library to dlopen",
     [](Options& o, const char* v) { o.library = v; return true; }},
    {"--model", "DIR", kAny, "model directory",
     [](Options& o, const char* v) { o.model = v; return true; }},
    {"--device", "CPU|GPU|NPU", kAny, "device (or its number)",
     [](Options& o, const char* v) { return ParseDevice(v, o.device); }},
    {"--context", "N", kLlm, "context length: max_new_tokens, NPU prompt length (default " CLI_TEXT(CLI_DEFAULT_CONTEXT) ")",
     [](Options& o, const char* v) { return ParseInt32(v, o.context); }},
    {"--set", "NAME=VALUE", kGenerate | kTranscribe, "set a generation setting (repeatable)",
     [](Options& o, const char* v) {
         const char* eq = std::strchr(v, '=');
         if (eq == nullptr || eq == v) return false;
         o.settings.emplace_back(std::string(v, eq), std::string(eq + 1));
         return true;
     }},
    {"--stop", "TEXT", kGenerate, "stop string (repeatable)",
     [](Options& o, const char* v) { o.stopStrings.emplace_back(v); return true; }},
    {"--stop-id", "ID", kGenerate, "also stop at this token id (repeatable)",
     [](Options& o, const char* v) {
         int64_t id = 0;
         if (!ParseInt64(v, id)) return false;
         o.stopIds.push_back(id);
         return true;
     }},
    {"--list-settings", nullptr, kGenerate | kTranscribe, "print every setting of the loaded model and stop",
     [](Options& o, const char*) { o.listSettings = true; return true; }},
    {"--stats", nullptr, kGenerate | kTranscribe, "print statistics on stderr",
     [](Options& o, const char*) { o.stats = true; return true; }},
};

const Option* FindOption(const char* name) {
    for (const Option& option : kOptions)
        if (std::strcmp(option.name, name) == 0) return &option;
    return nullptr;
}

}  // namespace

bool ParseArguments(int argc, char** argv, Options& options, std::string& error, std::string& info) {
    int i = 1;
    if (i < argc)
        for (const Subcommand& sub : kSubcommands)
            if (std::strcmp(argv[i], sub.name) == 0) {
                options.command = sub.id;
                ++i;
                break;
            }
    const char* commandName = SubcommandOf(options.command).name;
    bool operandsOnly = false;
    for (; i < argc; ++i) {
        const char* arg = argv[i];
        if (operandsOnly || arg[0] != '-' || arg[1] == '\0') {
            options.words.emplace_back(arg);
            continue;
        }
        if (std::strcmp(arg, "--") == 0) {
            operandsOnly = true;
            continue;
        }
        if (std::strcmp(arg, "--help") == 0 || std::strcmp(arg, "-h") == 0) {
            error.clear();
            info = Usage(argv[0]);
            return false;
        }
        if (std::strcmp(arg, "--version") == 0) {
            error.clear();
            info = "velmora-host " VELMORA_VERSION "\n";
            return false;
        }
        const Option* option = FindOption(arg);
        if (option == nullptr) {
            error = std::string("unknown option ") + arg;
            return false;
        }
        if ((option->commands & options.command) == 0) {
            error = std::string(arg) + " does not apply to " + commandName;
            return false;
        }
        const char* value = nullptr;
        if (option->metavar != nullptr) {
            if (i + 1 >= argc) {
                error = std::string(arg) + " needs " + option->metavar;
                return false;
            }
            value = argv[++i];
        }
        if (!option->apply(options, value)) {
            error = std::string("bad value for ") + arg + ": expected " + option->metavar;
            return false;
        }
    }
    return true;
}

std::string Usage(const char* program) {
    std::string text;
    char line[512];
    std::snprintf(line, sizeof line, "usage: %s [SUBCOMMAND] [OPTIONS] OPERANDS\n\nsubcommands (default generate):\n",
                  program);
    text += line;
    for (const Subcommand& sub : kSubcommands) {
        std::snprintf(line, sizeof line, "  %-10s %-12s %s (model: models/%s)\n", sub.name, sub.operands,
                      sub.summary, sub.defaultModel);
        text += line;
    }
    text += "\noptions:\n";
    for (const Option& option : kOptions) {
        std::string usedBy;
        for (const Subcommand& sub : kSubcommands)
            if (option.commands & sub.id) usedBy += std::string(usedBy.empty() ? "" : ",") + sub.name;
        const std::string left = std::string(option.name) + (option.metavar ? " " : "") +
                                 (option.metavar ? option.metavar : "");
        std::snprintf(line, sizeof line, "  %-24s %s [%s]\n", left.c_str(), option.help, usedBy.c_str());
        text += line;
    }
    text += "  --version                print the version\n"
            "\nA PROMPT or TEXT of \"-\" is read from standard input (without its final newline).\n"
            "Ctrl-C stops a generation or transcription; what came so far is printed and the exit status is 130.\n";
    return text;
}

}  // namespace cli
