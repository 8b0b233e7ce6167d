// A private scratch directory per test, removed with everything in it.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

class TempDir {
  public:
    TempDir() {
        std::string tmpl = (std::filesystem::temp_directory_path() / "kiv_test_XXXXXX").string();
        if (::mkdtemp(tmpl.data()) != nullptr) path_ = tmpl;
    }
    ~TempDir() {
        std::error_code ec;
        if (!path_.empty()) std::filesystem::remove_all(path_, ec);
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    std::string file(const std::string &name) const { return (path_ / name).string(); }

  private:
    std::filesystem::path path_;
};

inline void write_bytes(const std::string &path, const std::vector<std::uint8_t> &bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char *>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
}

inline std::vector<std::uint8_t> read_bytes(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(in), {});
}
