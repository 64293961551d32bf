#include <gtest/gtest.h>

#include <climits>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <utility>

#include "core/device.h"
#include "core/properties.h"
#include "temp_dir.h"

namespace fs = std::filesystem;
using velmora::BuildPipelineProperties;
using velmora::DeviceName;
using velmora::HasBlobFile;

namespace {

template <class Call>
std::string InvalidArgumentText(Call&& call) {
    try {
        call();
    } catch (const std::invalid_argument& e) {
        return e.what();
    }
    return "<no std::invalid_argument>";
}

}  // namespace

// The names are a checked constant table; what lies outside it shows here.
TEST(DeviceName, RejectsWhatIsNoDeviceWithTheValue) {
    for (int32_t device : {3, -1, INT32_MIN})
        EXPECT_EQ(InvalidArgumentText([&] { DeviceName(device); }),
                  std::to_string(device) + "device type is not supported");
}

TEST(BuildPipelineProperties, OnlyTheNpuGetsPropertiesOfTheTypesTheRuntimeReads) {
    TempDir dir;
    dir.Touch("a/b/compiled.blob");
    // An unsupported device is left for DeviceName to reject.
    for (bool mustBeAbsent : {false, true})
        for (int device : {0, 1, 7})
            EXPECT_TRUE(BuildPipelineProperties(dir.path(), dir.path(), mustBeAbsent, 16, device).empty()) << device;
    const ov::AnyMap map = BuildPipelineProperties(dir.path(), dir.path(), false, 512, 2);
    ASSERT_EQ(map.size(), 2u);
    // The runtime reads these with exactly these types.
    ASSERT_TRUE(map.at("CACHE_DIR").is<std::string>());
    EXPECT_EQ(map.at("CACHE_DIR").as<std::string>(), dir.path().string());
    ASSERT_TRUE(map.at("MAX_PROMPT_LEN").is<int>());
    EXPECT_EQ(map.at("MAX_PROMPT_LEN").as<int>(), 512);
    // Both callers pass the model directory as the cache: only here can the two differ.
    const fs::path file = dir.Touch("weights.bin");
    EXPECT_EQ(InvalidArgumentText([&] { BuildPipelineProperties(dir.path(), file, false, 1, 0); }),
              "The provide cache directory path is not a directory");
}

TEST(HasBlobFile, FindsTheExactExtensionAtAnyDepthWithoutFollowingLinks) {
    const std::pair<const char*, bool> cases[] = {
        {"x/y/z/deep.blob", true}, {"cache.blob/inner.txt", true}, {"model.BLOB", false},
        {".blob", false},          {"model.blob.txt", false},      {"x.y.blob", true},
    };
    for (const auto& [entry, isBlob] : cases) {
        TempDir dir;
        dir.Touch(entry);
        EXPECT_EQ(HasBlobFile(dir.path()), isBlob) << entry;
    }
    TempDir outside, dir;
    outside.Touch("elsewhere.blob");
    fs::create_directory_symlink(outside.path(), dir.path() / "link");
    EXPECT_FALSE(HasBlobFile(dir.path()));
    EXPECT_THROW(HasBlobFile(dir.path() / "missing"), fs::filesystem_error);
}
