// A fresh directory under /tmp, removed with the object.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

class TempDir {
public:
    TempDir() {
        char pattern[] = "/tmp/velmora-test-XXXXXX";
        if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~TempDir() { std::filesystem::remove_all(path_); }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return path_; }

    // A one-byte file at `relative`, with the directories it needs.
    std::filesystem::path Touch(const std::filesystem::path& relative) const {
        const std::filesystem::path file = path_ / relative;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file) << "x";
        return file;
    }

private:
    std::filesystem::path path_;
};
