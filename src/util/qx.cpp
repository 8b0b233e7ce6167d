#include "util/qx.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

int qx_vprintf(const char *format, va_list args) {
    int r = std::vprintf(format, args);
    std::fflush(stdout);
    return r;
}

int qx_printf(const char *format, ...) {
    va_list args;
    va_start(args, format);
    int r = qx_vprintf(format, args);
    va_end(args);
    return r;
}

unsigned qx_console_puts(const char *text) {
    std::size_t len = std::strlen(text);
    std::size_t done = 0;
    while (done < len) {
        ssize_t w = ::write(1, text + done, len - done);
        if (w < 0) {
            if (errno == EINTR) continue;
            break; // nothing sensible to report to: the console itself failed
        }
        done += static_cast<std::size_t>(w);
    }
    return static_cast<unsigned>(done);
}

unsigned qx_vsnprintf(char *buffer, std::size_t n, const char *format, va_list args) {
    int r = std::vsnprintf(buffer, n, format, args);
    if (r < 0) {
        if (n > 0) buffer[0] = '\0';
        return 0;
    }
    if (static_cast<std::size_t>(r) >= n) return n > 0 ? static_cast<unsigned>(n - 1) : 0;
    return static_cast<unsigned>(r);
}

int qx_console_vprintf(const char *format, va_list args) {
    // Fixed stack buffer: the console path must work when the heap may be damaged.
    char buf[80];
    unsigned len = qx_vsnprintf(buf, sizeof buf, format, args);
    qx_console_puts(buf);
    return static_cast<int>(len);
}

int qx_console_printf(const char *format, ...) {
    va_list args;
    va_start(args, format);
    int r = qx_console_vprintf(format, args);
    va_end(args);
    return r;
}

unsigned qx_strlcpy(char *dst, const char *src, std::size_t size) {
    std::size_t len = std::strlen(src);
    if (size > 0) {
        std::size_t n = len < size - 1 ? len : size - 1;
        std::memcpy(dst, src, n);
        dst[n] = '\0';
    }
    return static_cast<unsigned>(len);
}

void qx_abort() {
    std::abort();
}

void qx_panic(const char *format, ...) {
    qx_console_puts("Panic: ");
    va_list args;
    va_start(args, format);
    qx_console_vprintf(format, args);
    va_end(args);
    qx_abort();
}
