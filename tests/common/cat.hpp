// Strings built front to back. GCC 12 at -O2 inlines the prepend behind
// `"literal" + std::string` and then warns about an overlap that cannot happen
// (-Wrestrict); appending has no such path, so tests join their text with cat().
#pragma once

#include <string>
#include <string_view>

template <typename... Parts> std::string cat(const Parts &...parts) {
    std::string joined;
    (joined.append(std::string_view(parts)), ...);
    return joined;
}
