// Command-line options, shared by every subcommand.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "openvino_bindings.h"

namespace cli {

// Bit per subcommand, so the option table can say where each option belongs.
enum Command : unsigned {
    kGenerate = 1u << 0,
    kTokenize = 1u << 1,
    kCompile = 1u << 2,
    kTranscribe = 1u << 3,
};

// max_new_tokens of a new model, and on the NPU its longest prompt: the
// public header's, which the Python package takes too.
#define CLI_DEFAULT_CONTEXT VELMORA_DEFAULT_CONTEXT_LENGTH
constexpr int32_t kDefaultContext = CLI_DEFAULT_CONTEXT;

struct Options {
    Command command = kGenerate;
    std::string library;
    std::string model;  // empty: the subcommand's default model
    int32_t device = 0;
    int32_t context = kDefaultContext;
    std::vector<std::pair<std::string, std::string>> settings;  // --set, in order
    std::vector<std::string> stopStrings;
    std::vector<int64_t> stopIds;
    bool stats = false;
    bool listSettings = false;
    bool version = false;
    std::vector<std::string> words;  // prompt, text to tokenize or audio file
};

// Fills `options` from argv. On a usage error returns false with `error` set.
// "--help" returns false with an empty `error` and `info` set to what to print;
// "--version" sets `version` and stops.
bool ParseArguments(int argc, char** argv, Options& options, std::string& error, std::string& info);

// Checks what can be judged before a model loads: each --set against the
// library's own table of the subcommand's family (name, and a value its
// conversion takes), and the context length. False with `error` set.
bool CheckOptions(const Options& options, std::string& error);

std::string Usage(const char* program);

}  // namespace cli
