#include "util/fnfile.hpp"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <sys/stat.h>

#include "util/stdio_file.hpp"

std::int32_t fnread(const char *path, void *buf, std::size_t n) {
    StdioFile f(path, "r");
    if (!f) return -1;
    std::size_t got = std::fread(buf, 1, n, f.get());
    return f.close() == 0 ? static_cast<std::int32_t>(got) : -1;
}

std::int32_t fnwrite(const char *path, const void *buf, std::size_t n) {
    StdioFile f(path, "w");
    if (!f) return -1;
    std::size_t put = std::fwrite(buf, 1, n, f.get());
    return f.close() == 0 ? static_cast<std::int32_t>(put) : -1;
}

int fnscanf(const char *path, const char *format, ...) {
    StdioFile f(path, "r");
    if (!f) return -1;
    va_list args;
    va_start(args, format);
    int r = std::vfscanf(f.get(), format, args);
    va_end(args);
    return f.close() == 0 ? r : -1;
}

int fnprintf(const char *path, const char *format, ...) {
    StdioFile f(path, "w");
    if (!f) return -1;
    va_list args;
    va_start(args, format);
    int r = std::vfprintf(f.get(), format, args);
    va_end(args);
    return f.close() == 0 ? r : -1;
}

std::int32_t fnsize(const char *path) {
    struct stat st;
    if (::stat(path, &st) != 0) return -1;
    // A size beyond the 32-bit result is reported as the largest one, so that a huge
    // file reads as too big rather than as negative (unopenable) or small.
    constexpr off_t largest = INT32_MAX;
    return static_cast<std::int32_t>(st.st_size > largest ? largest : st.st_size);
}
