// Text scanning that measures instead of copying, so that a value can be checked against
// its field before it is stored anywhere.
#pragma once

#include <cctype>
#include <cstddef>
#include <optional>
#include <string_view>

// The characters [pos, pos + n) of text, clamped to its end. Unlike substr it has no
// out-of-range path, which would pull the C++ exception machinery into the binary.
constexpr std::string_view sv_slice(std::string_view text, std::size_t pos,
                                    std::size_t n = std::string_view::npos) {
    if (pos > text.size()) pos = text.size();
    std::size_t rest = text.size() - pos;
    return std::string_view(text.data() + pos, n < rest ? n : rest);
}

inline bool scan_is_space(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

// What a scanf "%s" directive following `literal` would assign from word: leading white
// space skipped, then the run up to the next white space. nullopt when word does not begin
// with literal or no text follows it.
inline std::optional<std::string_view> scan_text(std::string_view word, std::string_view literal) {
    if (!word.starts_with(literal)) return std::nullopt;
    word.remove_prefix(literal.size());
    std::size_t start = 0;
    while (start < word.size() && scan_is_space(word[start]))
        ++start;
    std::size_t end = start;
    while (end < word.size() && !scan_is_space(word[end]))
        ++end;
    if (end == start) return std::nullopt;
    return sv_slice(word, start, end - start);
}
