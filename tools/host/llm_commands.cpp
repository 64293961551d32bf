// generate, tokenize and compile: the LLM table.
#include <cstdio>
#include <string>
#include <vector>

#include "commands.h"
#include "interrupt.h"
#include "progress.h"
#include "report.h"
#include "stats.h"

namespace cli {
namespace {

// An LLM handle, destroyed with the object.
class LlmHandle {
public:
    LlmHandle(const LlmApiBase& api, const Options& options) : api_(api) {
        Progress progress("loading " + options.model + " on " + DeviceLabel(options.device));
        if (api.InitModel(options.model.c_str(), options.device, options.context, &handle_,
                          &Library::Callbacks()) == 0)
            progress.Done();
        else
            handle_ = nullptr;
    }
    ~LlmHandle() { api_.DestroyModel(handle_); }
    LlmHandle(const LlmHandle&) = delete;
    LlmHandle& operator=(const LlmHandle&) = delete;
    void* get() const { return handle_; }

private:
    const LlmApiBase& api_;
    void* handle_ = nullptr;
};

bool ApplyLlmOptions(const LlmApiBase& api, void* handle, const Options& options) {
    for (const auto& [name, value] : options.settings)
        if (!ApplySetting([&](const char* n, const char* v) { return api.SetConfigProperty(handle, n, v); },
                          name, value))
            return false;
    if (!options.stopStrings.empty()) {
        std::vector<const char*> strings;
        for (const std::string& s : options.stopStrings) strings.push_back(s.c_str());
        if (api.SetStopStrings(handle, strings.data(), strings.size()) != 0) return false;
    }
    if (options.stopIds.empty()) return true;
    // --stop-id adds to the model's own stop ids, which hold its end-of-text id
    // that the runtime insists on.
    std::vector<int64_t> ids = options.stopIds;
    int64_t* own = nullptr;
    size_t count = 0;
    if (api.GetStopTokens(handle, &own, &count) != 0) return false;
    if (count != 0) {
        ids.insert(ids.end(), own, own + count);
        api.FreeStopTokens(own);
    }
    return api.SetStopTokens(handle, ids.data(), ids.size()) == 0;
}

std::string JoinWords(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
    return text;
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
    std::string prompt = JoinWords(options.words);
    if (prompt.empty()) prompt = "The three primary colors are";

    LlmHandle model(api, options);
    if (model.get() == nullptr || !ApplyLlmOptions(api, model.get(), options)) return kFailed;

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
    if (status != 0) return kFailed;
    if (!cancel.Fired()) return kOk;
    Progress::Note("interrupted");
    return kInterrupted;
}

int RunTokenize(const Options& options, Library& library) {
    const LlmApiBase& api = library.llm();
    if (options.words.empty()) return UsageError("tokenize needs a text");
    LlmHandle model(api, options);
    if (model.get() == nullptr) return kFailed;

    int64_t* ids = nullptr;
    size_t count = 0;
    if (api.Tokenize(model.get(), JoinWords(options.words).c_str(), &ids, &count) != 0) return kFailed;
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
    Library::Mute(true);
    void* unused = nullptr;
    api.InitModel(options.model.c_str(), options.device, 0, &unused, &Library::Callbacks());
    Library::Mute(false);
    api.DestroyModel(unused);

    Progress progress("compiling " + options.model + " for " + DeviceLabel(options.device));
    if (api.CompileModel(options.model.c_str(), options.device, options.context) != 0) return kFailed;
    progress.Done();
    return kOk;
}

}  // namespace cli
