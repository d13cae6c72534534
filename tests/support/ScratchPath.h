// A temporary directory of its own, removed with everything in it (for suites without Qt).
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <string>
#include <system_error>

namespace kvpcie::testing {

class ScratchPath {
public:
    ScratchPath() {
        namespace fs = std::filesystem;
        std::error_code error;
        const fs::path made =
            fs::temp_directory_path() / ("kvpcie-" + std::to_string(std::random_device()()));
        EXPECT_TRUE(fs::create_directory(made, error)) << made << ": " << error.message();
        // Resolved, for suites that compare it with the names the system resolves.
        dir_ = fs::canonical(made, error);
    }
    ~ScratchPath() {
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }
    ScratchPath(const ScratchPath&) = delete;
    ScratchPath& operator=(const ScratchPath&) = delete;

    const std::filesystem::path& Dir() const { return dir_; }
    std::string Path() const { return dir_.string(); }

private:
    std::filesystem::path dir_;
};

}  // namespace kvpcie::testing
