// Text fields of persisted records: NUL-terminated within a fixed width, except that a
// record read from flash need not hold its NUL. Nothing here reads past the width.
#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>

// The text of a fixed-width field, up to its first NUL.
inline std::string_view field_view(const char *field, std::size_t width) {
    return std::string_view(field, strnlen(field, width));
}

// Precision for printing a fixed-width field with "%.*s".
template <std::size_t N> int field_width(const char (&field)[N]) {
    return static_cast<int>(strnlen(field, N));
}

// A fixed-width field copied into a terminated buffer, for "%-15s" padding and for
// functions that take C strings.
template <std::size_t N> struct terminated {
    char text[N + 1];
    explicit terminated(const char (&src)[N]) {
        std::size_t n = strnlen(src, N);
        std::memcpy(text, src, n);
        text[n] = '\0';
    }
};
