// A private scratch directory per test, removed with everything in it, and whole-file I/O.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

struct TempDir {
    std::string path = [] {
        std::string t = (std::filesystem::temp_directory_path() / "kiv_test_XXXXXX").string();
        return ::mkdtemp(t.data()) != nullptr ? t : std::string("/nonexistent");
    }();
    TempDir() = default;
    TempDir(const TempDir &) = delete;
    ~TempDir() { std::filesystem::remove_all(path); }
    std::string file(const std::string &name) const { return path + "/" + name; }
};

inline void write_bytes(const std::string &path, const std::vector<std::uint8_t> &bytes) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char *>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

inline std::vector<std::uint8_t> read_bytes(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(in), {});
}
