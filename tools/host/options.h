// Command-line options, shared by every subcommand.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

namespace cli {

// Bit per subcommand, so the option table can say where each option belongs.
enum Command : unsigned {
    kGenerate = 1u << 0,
    kTokenize = 1u << 1,
    kCompile = 1u << 2,
    kTranscribe = 1u << 3,
};

struct Options {
    Command command = kGenerate;
    std::string library;
    std::string model;  // empty: the subcommand's default model
    int32_t device = 0;
    int32_t context = 64;
    std::vector<std::pair<std::string, std::string>> settings;  // --set, in order
    std::vector<std::string> stopStrings;
    std::vector<int64_t> stopIds;
    bool stats = false;
    std::vector<std::string> words;  // prompt, text to tokenize or audio file
};

// Fills `options` from argv. On a usage error returns false with `error` set.
// A bare "--help" returns false with an empty `error`.
bool ParseArguments(int argc, char** argv, Options& options, std::string& error);

void PrintUsage(std::FILE* out, const char* program);

}  // namespace cli
