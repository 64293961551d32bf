// Every allocation a slot makes from the library's own code, failed in turn:
// the slot must fail with its status and one message, write no out-parameter,
// leak nothing (the address build) and leave the handle and its settings as
// they were. Counted: allocations on the calling thread during a slot call,
// first asked for by the library, without the interpreter lock (the runtime's
// and the bridge's work with Python are left alone).
#include <dlfcn.h>
#include <execinfo.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <map>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

#include "../host/harness.h"
#include "llm/llm_settings.h"
#include "whisper/whisper_settings.h"

namespace {

thread_local bool counting = false;  // inside a slot call
thread_local long seen = 0;          // allocations counted in this call
thread_local long failAt = 0;        // the one to fail, 1-based; 0: none
int (*holdsInterpreterLock)() = nullptr;
// The library, this program and libstdc++; found without allocating.
link_map *library = nullptr, *program = nullptr, *standard = nullptr;

link_map* ModuleOf(void* address) {
    dl_find_object found;
    return _dl_find_object(address, &found) == 0 ? found.dlfo_link_map : nullptr;
}

// Whether the first caller outside this program and the standard library
// (which allocates for its caller) is the library.
bool FromLibrary() {
    void* frames[16];
    const int depth = backtrace(frames, 16);
    for (int i = 1; i < depth; ++i) {
        const link_map* module = ModuleOf(frames[i]);
        if (module == library) return true;
        if (module != program && module != standard) return false;
    }
    return false;
}

bool FailsNow() {
    if (!counting || (holdsInterpreterLock != nullptr && holdsInterpreterLock() != 0)) return false;
    counting = false;  // backtrace may allocate itself
    const bool ours = FromLibrary();
    counting = true;
    return ours && ++seen == failAt;
}

void* Allocate(std::size_t size, std::size_t align) {
    if (FailsNow()) return nullptr;
    if (size == 0) size = 1;
    if (align <= alignof(std::max_align_t)) return std::malloc(size);
    return std::aligned_alloc(align, (size + align - 1) / align * align);
}

void* AllocateOrThrow(std::size_t size, std::size_t align) {
    if (void* p = Allocate(size, align)) return p;
    throw std::bad_alloc();
}

}  // namespace

void* operator new(std::size_t n) { return AllocateOrThrow(n, 0); }
void* operator new[](std::size_t n) { return AllocateOrThrow(n, 0); }
void* operator new(std::size_t n, std::align_val_t a) { return AllocateOrThrow(n, static_cast<std::size_t>(a)); }
void* operator new[](std::size_t n, std::align_val_t a) { return AllocateOrThrow(n, static_cast<std::size_t>(a)); }
void* operator new(std::size_t n, const std::nothrow_t&) noexcept { return Allocate(n, 0); }
void* operator new[](std::size_t n, const std::nothrow_t&) noexcept { return Allocate(n, 0); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }

namespace {

using namespace host;

std::vector<std::string> errors;
int logs = 0;
void OnLog(const char*) { ++logs; }
void OnError(const char* message) {
    const bool was = counting;  // the host's own allocation
    counting = false;
    errors.emplace_back(message);
    counting = was;
}
const HostCallbacks callbacks{OnLog, OnError};

// The documented failures of a slot, status and message; a fault must end in one.
using Failures = std::vector<std::pair<int32_t, std::string>>;
const Failures kBare{{1, "std::bad_alloc"}};
using State = std::map<std::string, std::string>;

struct Slot {
    std::string name;
    // One counted call: on success it releases what it received, on failure
    // it checks that no out-parameter was written.
    std::function<int32_t()> call;
    Failures failures = kBare;
    // Puts back what a successful call changed.
    std::function<void()> undo = [] {};
    // Whether each fault is followed by a call that must work (InitModel's next fault is one).
    bool rerun = true;
};

int32_t Counted(const std::function<int32_t()>& call) {
    counting = true;
    const int32_t status = call();
    counting = false;
    return status;
}

// A setter, with the call that puts back what it replaced.
Slot Setter(const std::string& name, std::function<int32_t()> set, std::function<int32_t()> back,
            const Failures& failures = kBare) {
    return {name, [=] { return Counted(set); }, failures, [=] { ASSERT_EQ(back(), 0); }};
}

// A slot that writes a T (and a count, for those that take one).
template <class T>
Slot Getter(const std::string& name, std::function<int32_t(T*, size_t*)> get, std::function<void(T, size_t)> release,
            const Failures& failures = kBare, bool rerun = true) {
    const auto call = [=] {
        T out = Untouched<std::remove_pointer_t<T>>();
        size_t count = 9;
        const int32_t status = Counted([&] { return get(&out, &count); });
        if (status == 0) release(out, count);
        else EXPECT_TRUE(out == Untouched<std::remove_pointer_t<T>>() && count == 9);
        return status;
    };
    return {name, call, failures, [] {}, rerun};
}

// Fails each allocation of `slot` in turn; returns how many there were.
long FailEach(const Slot& slot, const std::function<State()>& state) {
    SCOPED_TRACE(slot.name);
    const State before = state();
    const auto run = [&](long at) {
        errors.clear();
        seen = 0;
        failAt = at;
        const int32_t status = slot.call();
        failAt = 0;
        return status;
    };
    // The first call may fill lazy state; the second is the one counted.
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(run(0), 0) << (errors.empty() ? "" : errors.front());
        slot.undo();
    }
    const long total = seen;  // 0: a slot that cannot fail here
    for (long at = 1; at <= total; ++at) {
        SCOPED_TRACE("allocation " + std::to_string(at) + " of " + std::to_string(total));
        const int32_t status = run(at);
        EXPECT_GE(seen, at);
        EXPECT_EQ(errors.size(), 1u);
        if (!errors.empty())
            EXPECT_TRUE(std::count(slot.failures.begin(), slot.failures.end(), std::make_pair(status, errors.front())))
                << "status " << status << ": " << errors.front();
        EXPECT_EQ(state(), before);
        if (slot.rerun) {
            EXPECT_EQ(run(0), 0);
            slot.undo();
        }
    }
    return total;
}

long FailAll(const std::vector<Slot>& slots, const std::function<State()>& state) {
    long points = 0;
    for (const Slot& slot : slots) points += FailEach(slot, state);
    return points;
}

// Every setting by name, as text.
template <class Table, class Api>
State SettingsOf(const Table& table, const Api& api, void* handle) {
    State state;
    for (const auto& row : table) {
        if (!row.byName) continue;
        char* text = nullptr;
        const int32_t status = api.GetConfigProperty(handle, row.name, &text);
        state[row.name] = status == 0 ? text : "<" + std::to_string(status) + ">";
        if (status == 0) api.FreeConfigProperty(text);
    }
    return state;
}

std::string Joined(const std::vector<int64_t>& ids) {
    std::string text;
    for (int64_t id : ids) text += std::to_string(id) + ",";
    return text;
}

// A value of each kind, other than the model's, too long for a string to hold without allocating.
const char* OtherValue(velmora::SettingKind kind) {
    switch (kind) {
        case velmora::SettingKind::Size: return "000000000000000000000000005";
        case velmora::SettingKind::Integer: return "000000000000000000000000007";
        case velmora::SettingKind::Float: return "0.25000000000000000000000000";
        case velmora::SettingKind::Bool: return "anything but true means false";
        case velmora::SettingKind::StopCriteria: return "NEVER";
        default: return "<|a language token longer than any short one|>";
    }
}

// Set and get of the setting of each kind with the longest text: the work differs by kind and length, not name.
template <class Table, class Api>
std::vector<Slot> SettingSlots(const Table& table, const Api& api, void* handle, const State& before) {
    std::map<velmora::SettingKind, std::string> longest;
    for (const auto& row : table) {
        std::string& name = longest[row.kind()];
        if (row.byName && (name.empty() || before.at(row.name).size() > before.at(name).size())) name = row.name;
    }
    std::vector<Slot> slots;
    for (const auto& entry : longest) {
        const std::string name = entry.second, value = OtherValue(entry.first);
        if (name.empty()) continue;
        // The largest size reads back as itself but is written as -1.
        const std::string old = before.at(name) == std::to_string(SIZE_MAX) ? "-1" : before.at(name);
        slots.push_back(Setter(
            "set " + name, [=, &api] { return api.SetConfigProperty(handle, name.c_str(), value.c_str()); },
            [=, &api] { return api.SetConfigProperty(handle, name.c_str(), old.c_str()); },
            {{1, "An error occurred setting property " + name + " with value " + value + ": std::bad_alloc"}}));
        slots.push_back(Getter<char*>(
            "get " + name, [=, &api](char** text, size_t*) { return api.GetConfigProperty(handle, name.c_str(), text); },
            [&api](char* text, size_t) { api.FreeConfigProperty(text); },
            {{1, "An error occurred getting property " + name + ": std::bad_alloc"}}));
    }
    return slots;
}

class AllocationFailures : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        // The first handle starts the interpreter; only then is its lock known.
        void* handle = nullptr;
        ASSERT_EQ(Llm().InitModel(host::ModelDir("tiny-llm").c_str(), DEVICE_CPU, 4, &handle, &callbacks), 0);
        Llm().DestroyModel(handle);
        holdsInterpreterLock = reinterpret_cast<int (*)()>(dlsym(RTLD_DEFAULT, "PyGILState_Check"));
        ASSERT_NE(holdsInterpreterLock, nullptr);
        library = ModuleOf(reinterpret_cast<void*>(Llm().InitModel));
        program = ModuleOf(reinterpret_cast<void*>(&FromLibrary));
        standard = ModuleOf(dlsym(RTLD_DEFAULT, "_ZSt9terminatev"));
        ASSERT_TRUE(library != nullptr && program != nullptr && standard != nullptr);
        ASSERT_TRUE(library != program && library != standard && program != standard);
    }
    void TearDown() override {
        EXPECT_GT(points, 0);
        std::printf("[ points   ] %ld allocations failed in turn\n", points);
    }
    long points = 0;
};

TEST_F(AllocationFailures, LlmSlotsFailCleanlyAtEveryAllocation) {
    const auto& llm = Llm();
    void* h = nullptr;
    ASSERT_EQ(llm.InitModel(host::ModelDir("tiny-llm").c_str(), DEVICE_CPU, 3, &h, &callbacks), 0);
    const char* stops[] = {"ab", "cd"};
    const char* others[] = {"a much longer stop string than any short one", "x", "yz"};
    // Both lists hold the end-of-text id, or no query would validate.
    const int64_t eos = std::stoll(SettingsOf(velmora::llm::kSettings, llm, h).at("eos_token_id"));
    const int64_t ids[] = {eos, 4}, otherIds[] = {eos, 6, 7};
    ASSERT_EQ(llm.SetStopStrings(h, stops, 2), 0);
    ASSERT_EQ(llm.SetStopTokens(h, ids, 2), 0);
    const auto state = [&] {
        State s = SettingsOf(velmora::llm::kSettings, llm, h);
        char** strings = Untouched<char*>();
        size_t count = 0;
        EXPECT_EQ(llm.GetStopStrings(h, &strings, &count), 0);
        for (size_t i = 0; i < count; ++i) s["stop_strings"] += std::string(strings[i]) + ",";
        llm.FreeStopStrings(strings, count);
        s["stop_token_ids"] = Joined(host::Ids(llm.GetStopTokens, h));
        return s;
    };
    const auto freeIds = [&](int64_t* out, size_t) { llm.FreeTokens(out); };
    std::vector<Slot> slots = SettingSlots(velmora::llm::kSettings, llm, h, state());
    slots.insert(slots.end(), {
        Setter("SetStopStrings", [&] { return llm.SetStopStrings(h, others, 3); },
               [&] { return llm.SetStopStrings(h, stops, 2); }),
        Getter<char**>("GetStopStrings", [&](char*** o, size_t* n) { return llm.GetStopStrings(h, o, n); },
                       llm.FreeStopStrings),
        Setter("SetStopTokens", [&] { return llm.SetStopTokens(h, otherIds, 3); },
               [&] { return llm.SetStopTokens(h, ids, 2); }),
        Getter<int64_t*>("GetStopTokens", [&](int64_t** o, size_t* n) { return llm.GetStopTokens(h, o, n); }, freeIds),
        Getter<int64_t*>("Tokenize", [&](int64_t** o, size_t* n) { return llm.Tokenize(h, "Once upon a time", o, n); },
                         freeIds),
        Getter<char*>("QueryModel", [&](char** text, size_t*) { return llm.QueryModel(h, "Once upon", text); },
                      [&](char* text, size_t) { llm.FreeQueryResult(text); },
                      {{3, "Failure during config validation: std::bad_alloc"},
                       {5, "An unknown error occurred while querying the model: std::bad_alloc"}}),
    });
    points = FailAll(slots, state);
    llm.DestroyModel(h);
}

TEST_F(AllocationFailures, WhisperSlotsFailCleanlyAtEveryAllocation) {
    const auto& whisper = Whisper();
    void* h = nullptr;
    ASSERT_EQ(whisper.InitModel(host::ModelDir("tiny-whisper").c_str(), DEVICE_CPU, &h, &callbacks), 0);
    // Every list starts filled, so a setter that empties it before failing shows.
    char en[] = "<|en|>", de[] = "<|de|>", fr[] = "<|fr|>", es[] = "<|es|>", it[] = "<|it|>";
    const LangIdPair languages[] = {{en, 50259}, {de, 50261}};
    const LangIdPair otherLanguages[] = {{fr, 50265}, {es, 50262}, {it, 50274}};
    const int64_t ids[] = {220, 50257}, otherIds[] = {1, 2, 3};
    ASSERT_EQ(whisper.SetLangToId(h, languages, 2), 0);
    ASSERT_EQ(whisper.SetBeginSuppressTokens(h, ids, 2), 0);
    ASSERT_EQ(whisper.SetSuppressTokens(h, ids, 2), 0);
    ASSERT_EQ(whisper.SetConfigProperty(h, "language", "<|en|>"), 0);
    ASSERT_EQ(whisper.SetConfigProperty(h, "task", "transcribe"), 0);
    const auto state = [&] {
        State s = SettingsOf(velmora::whisper::kSettings, whisper, h);
        LangIdPair* pairs = nullptr;
        size_t count = 0;
        EXPECT_EQ(whisper.GetLangToId(h, &pairs, &count), 0);
        for (size_t i = 0; i < count; ++i) {
            s["lang_to_id"] += std::string(pairs[i].language) + "=" + std::to_string(pairs[i].id) + ",";
            whisper.FreeQueryResult(pairs[i].language);
        }
        if (count != 0) whisper.FreeLangToId(pairs);
        s["begin_suppress_tokens"] = Joined(host::Ids(whisper.GetBeginSuppressTokens, h));
        s["suppress_tokens"] = Joined(host::Ids(whisper.GetSuppressTokens, h));
        return s;
    };
    std::vector<Slot> slots = SettingSlots(velmora::whisper::kSettings, whisper, h, state());
    slots.push_back(Setter("SetLangToId", [&] { return whisper.SetLangToId(h, otherLanguages, 3); },
                           [&] { return whisper.SetLangToId(h, languages, 2); },
                           {{1, "An error occurred setting lang_to_id"}}));
    slots.push_back(Getter<LangIdPair*>(
        "GetLangToId", [&](LangIdPair** o, size_t* n) { return whisper.GetLangToId(h, o, n); },
        [&](LangIdPair* pairs, size_t count) {
            for (size_t i = 0; i < count; ++i) whisper.FreeQueryResult(pairs[i].language);
            whisper.FreeLangToId(pairs);
        },
        {{1, "An error occurred getting lang_to_id"}}));
    using Get = int32_t (*)(void*, int64_t**, size_t*);
    using Set = int32_t (*)(void*, const int64_t*, size_t);
    const std::pair<Get, Set> lists[] = {{whisper.GetBeginSuppressTokens, whisper.SetBeginSuppressTokens},
                                         {whisper.GetSuppressTokens, whisper.SetSuppressTokens}};
    for (const auto& [get, set] : lists) {
        slots.push_back(Setter("set tokens", [&, set = set] { return set(h, otherIds, 3); },
                               [&, set = set] { return set(h, ids, 2); }));
        slots.push_back(Getter<int64_t*>("get tokens", [&, get = get](int64_t** o, size_t* n) { return get(h, o, n); },
                                         [&](int64_t* out, size_t) { whisper.FreeSuppressTokens(out); }));
    }
    points = FailAll(slots, state);
    whisper.DestroyModel(h);
}

// The copies of the arguments and callbacks and the model object; each call logs once.
TEST_F(AllocationFailures, InitModelOfEitherFamilyFailsCleanlyAtEveryAllocation) {
    const std::string llmDir = host::ModelDir("tiny-llm").string(), whisperDir = host::ModelDir("tiny-whisper").string();
    const std::function<int32_t(void**)> inits[] = {
        [&](void** o) { return Llm().InitModel(llmDir.c_str(), DEVICE_CPU, 3, o, &callbacks); },
        [&](void** o) { return Whisper().InitModel(whisperDir.c_str(), DEVICE_CPU, o, &callbacks); }};
    const std::function<void(void*, size_t)> destroys[] = {[](void* h, size_t) { Llm().DestroyModel(h); },
                                                           [](void* h, size_t) { Whisper().DestroyModel(h); }};
    for (int family = 0; family < 2; ++family) {
        const auto init = [&, family](void** handle, size_t*) {
            logs = 0;
            const int32_t status = inits[family](handle);
            EXPECT_EQ(logs, 1);
            return status;
        };
        points += FailEach(Getter<void*>("InitModel", init, destroys[family], kBare, false), [] { return State{}; });
    }
}

}  // namespace
