// generate, tokenize and compile: the LLM table.
#include <cstdio>
#include <string>
#include <vector>

#include "commands.h"
#include "interrupt.h"
#include "progress.h"
#include "report.h"
#include "llm/llm_settings.h"
#include "stats.h"

namespace cli {
namespace {

using LlmModel = Model<LlmApiBase>;

LlmModel Load(const LlmApiBase& api, const Options& options) {
    return LlmModel(api, options.model, options.device, [&](void** handle) {
        return api.InitModel(options.model.c_str(), options.device, options.context, handle, &Library::Callbacks());
    });
}

bool ApplyLlmOptions(const LlmApiBase& api, void* handle, const Options& options) {
    if (!ApplySettings(api, handle, options.settings)) return false;
    if (!options.stopStrings.empty()) {
        std::vector<const char*> strings;
        for (const std::string& s : options.stopStrings) strings.push_back(s.c_str());
        if (api.SetStopStrings(handle, strings.data(), strings.size()) != 0)
            return Fail("cannot set the stop strings"), false;
    }
    if (options.stopIds.empty()) return true;
    // --stop-id adds to the model's own stop ids, which hold its end-of-text id
    // that the runtime insists on.
    std::vector<int64_t> ids = options.stopIds;
    int64_t* own = nullptr;
    size_t count = 0;
    if (api.GetStopTokens(handle, &own, &count) != 0) return Fail("cannot read the stop token ids"), false;
    if (count != 0) {
        ids.insert(ids.end(), own, own + count);
        api.FreeStopTokens(own);
    }
    if (api.SetStopTokens(handle, ids.data(), ids.size()) != 0) return Fail("cannot set the stop token ids"), false;
    return true;
}

// The operands joined by blanks; "-" alone is standard input, less one final newline.
std::string TextOf(const std::vector<std::string>& words) {
    std::string text;
    if (words.size() == 1 && words[0] == "-") {
        char block[4096];
        size_t n = 0;
        while ((n = std::fread(block, 1, sizeof block, stdin)) > 0) text.append(block, n);
        if (!text.empty() && text.back() == '\n') text.pop_back();
        return text;
    }
    for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
    return text;
}

// Standard input may hold a NUL, where the library's C string would end.
std::string NulIn(const std::string& text, const std::string& what) {
    const size_t at = text.find('\0');
    if (at == std::string::npos) return "";
    return what + " holds a NUL character at " + std::to_string(at) + ": the library would drop what follows";
}

// A TextCallback carries no context, so the running stream's is global.
StreamStats* runningStats = nullptr;

int OnPiece(char* piece) {
    runningStats->Piece();
    std::fputs(piece, stdout);
    std::fflush(stdout);
    return 0;
}

}  // namespace

int RunGenerate(const Options& options, Library& library) {
    const LlmApiBase& api = library.llm();
    std::string prompt = TextOf(options.words);
    if (prompt.empty() && options.words.empty()) prompt = "The three primary colors are";
    // Found before the model loads: the runtime would refuse it only after.
    if (prompt.empty() && !options.listSettings) return UsageError("the prompt is empty: give a text to continue");
    if (const std::string why = NulIn(prompt, "the prompt"); !why.empty()) return UsageError(why);

    const LlmModel model = Load(api, options);
    if (model.get() == nullptr || !ApplyLlmOptions(api, model.get(), options)) return kFailed;
    if (options.listSettings) return ListSettings(api, model.get(), velmora::llm::kSettings), kOk;

    std::fputs(prompt.c_str(), stdout);
    std::fflush(stdout);
    StreamStats stats;
    runningStats = &stats;
    CancelOnInterrupt cancel([&api, &model] { api.CancelModel(model.get()); });
    stats.Start();
    const int32_t status = api.StreamModel(model.get(), prompt.data(), OnPiece);
    stats.Finish();
    runningStats = nullptr;
    std::fputs("\n", stdout);
    std::fflush(stdout);
    if (options.stats) Progress::Note(stats.Summary().c_str());
    if (status != 0) return Fail("cannot generate");
    if (!cancel.Fired()) return kOk;
    Progress::Note("interrupted");
    return kInterrupted;
}

int RunTokenize(const Options& options, Library& library) {
    const LlmApiBase& api = library.llm();
    if (options.words.empty()) return UsageError("tokenize needs a text");
    const std::string text = TextOf(options.words);
    if (const std::string why = NulIn(text, "the text"); !why.empty()) return UsageError(why);
    const LlmModel model = Load(api, options);
    if (model.get() == nullptr) return kFailed;

    int64_t* ids = nullptr;
    size_t count = 0;
    if (api.Tokenize(model.get(), text.c_str(), &ids, &count) != 0) return Fail("cannot tokenize");
    for (size_t i = 0; i < count; ++i) std::printf(i ? " %lld" : "%lld", static_cast<long long>(ids[i]));
    std::printf("\n");
    api.FreeTokens(ids);
    return kOk;
}

int RunCompile(const Options& options, Library& library) {
    const LlmApiBase& api = library.llm();
    if (!options.words.empty()) return UsageError("compile takes no operands");
    // CompileModel reports through the pair of the last LLM InitModel only, and
    // InitModel stores the pair before anything else: hand ours over with an
    // InitModel that the library refuses at once (context length 0).
    void* unused = nullptr;
    api.InitModel(options.model.c_str(), options.device, 0, &unused, &Library::Callbacks());
    Library::TakeError();
    api.DestroyModel(unused);

    const std::string what = options.model + " for " + DeviceLabel(options.device);
    Progress progress("compiling " + what);
    if (api.CompileModel(options.model.c_str(), options.device, options.context) != 0) {
        progress.Stop();
        return Fail("cannot compile model '" + options.model + "' for " + DeviceLabel(options.device));
    }
    progress.Done();
    return kOk;
}

}  // namespace cli
