#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "pipeline/device.h"
#include "pipeline/properties.h"

namespace fs = std::filesystem;
using velmora::BuildPipelineProperties;
using velmora::DeviceName;
using velmora::HasBlobFile;

namespace {

class TempDir {
public:
    TempDir() {
        char pattern[] = "/tmp/velmora-setup-XXXXXX";
        path_ = mkdtemp(pattern);
    }
    ~TempDir() { fs::remove_all(path_); }
    const fs::path& path() const { return path_; }
    fs::path Touch(const fs::path& relative) const {
        fs::path file = path_ / relative;
        fs::create_directories(file.parent_path());
        std::ofstream(file) << "x";
        return file;
    }

private:
    fs::path path_;
};

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

TEST(DeviceName, MapsTheThreeDevicesAndRejectsTheRestWithTheValue) {
    EXPECT_EQ(DeviceName(0), "CPU");
    EXPECT_EQ(DeviceName(1), "GPU");
    EXPECT_EQ(DeviceName(2), "NPU");
    EXPECT_EQ(InvalidArgumentText([] { DeviceName(5); }), "5device type is not supported");
    EXPECT_EQ(InvalidArgumentText([] { DeviceName(3); }), "3device type is not supported");
    EXPECT_EQ(InvalidArgumentText([] { DeviceName(-1); }), "-1device type is not supported");
    EXPECT_EQ(InvalidArgumentText([] { DeviceName(INT32_MIN); }), "-2147483648device type is not supported");
}

TEST(BuildPipelineProperties, ChecksRunInOrderLengthThenModelThenCache) {
    TempDir dir;
    const fs::path file = dir.Touch("weights.bin");
    const fs::path missing = dir.path() / "missing";
    // The length is judged before the file system is asked anything.
    for (int device : {0, 1, 2, 9})
        EXPECT_EQ(InvalidArgumentText([&] { BuildPipelineProperties(missing, missing, false, 0, device); }),
                  "The context length must be greater than 0");
    EXPECT_EQ(InvalidArgumentText([&] { BuildPipelineProperties(missing, missing, true, -5, 0); }),
              "The context length must be greater than 0");
    EXPECT_EQ(InvalidArgumentText([&] { BuildPipelineProperties(missing, dir.path(), false, 1, 0); }),
              "The provided model path is not a directory");
    EXPECT_EQ(InvalidArgumentText([&] { BuildPipelineProperties(file, file, false, 1, 0); }),
              "The provided model path is not a directory");
    EXPECT_EQ(InvalidArgumentText([&] { BuildPipelineProperties(dir.path(), file, false, 1, 0); }),
              "The provide cache directory path is not a directory");
}

TEST(BuildPipelineProperties, CpuAndGpuGetAnEmptyMapWhateverBlobsLieThere) {
    TempDir dir;
    dir.Touch("model.blob");
    for (bool mustBeAbsent : {false, true}) {
        EXPECT_TRUE(BuildPipelineProperties(dir.path(), dir.path(), mustBeAbsent, 16, 0).empty());
        EXPECT_TRUE(BuildPipelineProperties(dir.path(), dir.path(), mustBeAbsent, 16, 1).empty());
        // An unsupported device is left for DeviceName to reject.
        EXPECT_TRUE(BuildPipelineProperties(dir.path(), dir.path(), mustBeAbsent, 16, 7).empty());
    }
}

TEST(BuildPipelineProperties, NpuLoadNeedsABlobAndCompileRefusesOne) {
    TempDir dir;
    EXPECT_EQ(InvalidArgumentText([&] { BuildPipelineProperties(dir.path(), dir.path(), false, 16, 2); }),
              "The provided cache dreictory does not contain an expected blob file");
    EXPECT_EQ(BuildPipelineProperties(dir.path(), dir.path(), true, 16, 2).size(), 2u);

    dir.Touch("a/b/compiled.blob");
    EXPECT_EQ(InvalidArgumentText([&] { BuildPipelineProperties(dir.path(), dir.path(), true, 16, 2); }),
              "The provided cache directory already contains an unexpected blob file");
    const ov::AnyMap map = BuildPipelineProperties(dir.path(), dir.path(), false, 512, 2);
    ASSERT_EQ(map.size(), 2u);
    // The runtime reads these with exactly these types.
    ASSERT_TRUE(map.at("CACHE_DIR").is<std::string>());
    EXPECT_EQ(map.at("CACHE_DIR").as<std::string>(), dir.path().string());
    ASSERT_TRUE(map.at("MAX_PROMPT_LEN").is<int>());
    EXPECT_EQ(map.at("MAX_PROMPT_LEN").as<int>(), 512);
}

TEST(HasBlobFile, FindsExactExtensionAtAnyDepthFilesAndDirectoriesAlike) {
    struct Case {
        const char* entry;
        bool isBlob;
    } cases[] = {
        {"x/y/z/deep.blob", true}, {"cache.blob/inner.txt", true}, {"model.BLOB", false}, {".blob", false},
        {"model.blob.txt", false}, {"blob", false},                 {"a.Blob", false},    {"x.y.blob", true},
    };
    for (const Case& c : cases) {
        TempDir dir;
        dir.Touch(c.entry);
        EXPECT_EQ(HasBlobFile(dir.path()), c.isBlob) << c.entry;
    }
    TempDir empty;
    EXPECT_FALSE(HasBlobFile(empty.path()));
}

TEST(HasBlobFile, DoesNotFollowDirectoryLinksAndFailsLoudlyOnAMissingDirectory) {
    TempDir outside, dir;
    outside.Touch("elsewhere.blob");
    fs::create_directory_symlink(outside.path(), dir.path() / "link");
    EXPECT_FALSE(HasBlobFile(dir.path()));
    EXPECT_THROW(HasBlobFile(dir.path() / "missing"), fs::filesystem_error);
}
