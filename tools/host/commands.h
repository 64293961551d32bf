// The subcommands and the table that names them.
#pragma once

#include "library.h"
#include "options.h"

namespace cli {

// Exit statuses: 0 done, 1 the library (or the audio reader) failed, 2 usage
// error, 130 stopped by Ctrl-C after printing what was produced so far.
enum ExitStatus { kOk = 0, kFailed = 1, kUsage = 2, kInterrupted = 130 };

int RunGenerate(const Options& options, Library& library);
int RunTokenize(const Options& options, Library& library);
int RunCompile(const Options& options, Library& library);
int RunTranscribe(const Options& options, Library& library);

struct Subcommand {
    const char* name;
    Command id;
    const char* operands;
    const char* summary;
    const char* defaultModel;  // below the models directory
    int (*run)(const Options&, Library&);
};

// generate comes first: it is what runs when no subcommand is named.
inline constexpr Subcommand kSubcommands[] = {
    {"generate", kGenerate, "[PROMPT...]", "stream generated text to the terminal", "smollm2", RunGenerate},
    {"tokenize", kTokenize, "TEXT...", "print the token ids of a text", "smollm2", RunTokenize},
    {"compile", kCompile, "", "compile the model for the device ahead of time", "smollm2", RunCompile},
    {"transcribe", kTranscribe, "AUDIO_FILE...", "transcribe audio files (any common format and rate)",
     "whisper-base", RunTranscribe},
};

const Subcommand& SubcommandOf(Command id);

}  // namespace cli
