#include "options.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include <algorithm>
#include <exception>
#include <iterator>
#include <string_view>

#include "commands.h"
#include "core/value_text.h"
#include "llm/llm_settings.h"
#include "report.h"
#include "whisper/whisper_settings.h"

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
    for (int32_t i = 0; i < static_cast<int32_t>(std::size(kDeviceNames)); ++i)
        if (strcasecmp(text, kDeviceNames[i]) == 0) return out = i, true;
    return ParseInt32(text, out);
}

// The --device help lists the library's device names, in code order.
constexpr const char* kDeviceMetavar = "CPU|GPU|NPU";
constexpr bool ListsDevices(std::string_view text) {
    for (std::size_t code = 0; code < std::size(kDeviceNames); ++code) {
        const std::string_view name = kDeviceNames[code];
        if (code > 0 && (text.empty() || text.front() != '|')) return false;
        if (code > 0) text.remove_prefix(1);
        if (text.substr(0, name.size()) != name) return false;
        text.remove_prefix(name.size());
    }
    return text.empty();
}
static_assert(ListsDevices(kDeviceMetavar), "kDeviceMetavar names kDeviceNames");

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
    {"--device", kDeviceMetavar, kAny, "device (or its number)",
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

// Levenshtein distance, for "did you mean".
size_t Distance(const std::string& a, const std::string& b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] != b[j - 1])});
            diagonal = above;
        }
    }
    return row[b.size()];
}

// A first operand one or two edits from a subcommand is a typo, not a prompt
// (a prompt of several words comes quoted, with blanks).
const char* Misspelt(const char* word) {
    if (word[0] == '-' || std::strchr(word, ' ') != nullptr) return nullptr;
    for (const Subcommand& sub : kSubcommands)
        if (Distance(word, sub.name) <= 2) return sub.name;
    return nullptr;
}

// "EARLY, HEURISTIC or NEVER", in the library's own words.
std::string StopCriteriaChoices() {
    std::string text;
    const size_t count = std::size(velmora::kStopCriteriaNames);
    for (size_t i = 0; i < count; ++i)
        text += std::string(i == 0 ? "" : i + 1 == count ? " or " : ", ") + velmora::kStopCriteriaNames[i];
    return text;
}

// Whether `value` converts as the library converts it for this row; `why` says
// what the setting takes otherwise.
template <class Row>
bool Converts(const Row& row, const std::string& value, std::string& why) {
    try {
        switch (row.kind()) {
            case velmora::SettingKind::Size:
                velmora::ParseInteger(value, velmora::IntegerParse::Stoi);
                return true;
            case velmora::SettingKind::Integer:
                velmora::ParseInteger(value, velmora::IntegerParse::Stol);
                return true;
            case velmora::SettingKind::Float:
                velmora::ParseFloat(value);
                return true;
            case velmora::SettingKind::StopCriteria:
                if (velmora::ParseStopCriteria(value)) return true;
                return why = StopCriteriaChoices(), false;
            case velmora::SettingKind::Text:
                // The runtime refuses any other task, but only once transcribing.
                if (std::strcmp(row.name, "task") != 0 || value == "transcribe" || value == "translate") return true;
                return why = "transcribe or translate", false;
            default:
                return true;
        }
    } catch (const std::exception& failure) {
        const bool integer = row.kind() != velmora::SettingKind::Float;
        why = std::string(integer ? "an integer" : "a number") + " (" + failure.what() + ")";
        return false;
    }
}

template <class Row, size_t N>
bool CheckSettings(const Row (&rows)[N], const char* family, const Options& options, std::string& error) {
    for (const auto& [name, value] : options.settings) {
        const Row* row = std::find_if(rows, rows + N, [&](const Row& r) { return r.byName && name == r.name; });
        if (row == rows + N) {
            error = "--set " + name + ": no such " + family + " setting (--list-settings shows them)";
            return false;
        }
        std::string why;
        if (!Converts(*row, value, why)) {
            error = "--set " + name + "=" + value + ": " + name + " takes " + why;
            return false;
        }
    }
    return true;
}

}  // namespace

bool CheckOptions(const Options& options, std::string& error) {
    if ((options.command & kLlm) != 0 && options.context < 1) {
        error = "--context takes a number of tokens from 1 to 2147483647, not " + std::to_string(options.context);
        return false;
    }
    if (std::find(options.stopStrings.begin(), options.stopStrings.end(), "") != options.stopStrings.end()) {
        error = "--stop takes a text that is not empty: an empty one would end every generation at once";
        return false;
    }
    return options.command == kTranscribe ? CheckSettings(velmora::whisper::kSettings, "Whisper", options, error)
                                          : CheckSettings(velmora::llm::kSettings, "LLM", options, error);
}

bool ParseArguments(int argc, char** argv, Options& options, std::string& error, std::string& info) {
    int i = 1;
    if (i < argc)
        for (const Subcommand& sub : kSubcommands)
            if (std::strcmp(argv[i], sub.name) == 0) {
                options.command = sub.id;
                ++i;
                break;
            }
    if (i == 1 && i < argc)
        if (const char* meant = Misspelt(argv[1])) {
            error = std::string("unknown subcommand '") + argv[1] + "'; did you mean '" + meant + "'?";
            return false;
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
            options.version = true;
            return true;
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
    text += "  --version                print the version and the runtime's\n"
            "\nA PROMPT or TEXT of \"-\" is read from standard input (without its final newline).\n"
            "Ctrl-C stops a generation at its next token, a transcription when the runtime next reports text;\n"
            "what came so far is printed and the exit status is 130.\n"
            "Default models are looked for in models/ below the working directory; --model DIR names another.\n";
    return text;
}

}  // namespace cli
