// The zunfinfo action: lists what a ZUNF image file holds, from its first 1024 bytes (the
// release header) or, with -all, from the whole validated file. Touches no hostconfig and
// no partition.
#pragma once

#include <cstddef>

#include "front/kiv_actions.hpp"
#include "zunf/zunf_stream_parser.hpp"

// Exit codes of kiv_zunfinfo (beside 0 and 1).
inline constexpr int ZUNFINFO_EXIT_OK = 0;
inline constexpr int ZUNFINFO_EXIT_ERR = 1;      // path missing, no memory, no parser
inline constexpr int ZUNFINFO_EXIT_ERR_OPEN = 8; // the file cannot be examined
inline constexpr int ZUNFINFO_EXIT_ERR_LOAD = 9; // empty, too big, no data, failed to parse

// Without -all only this much of the file is read: enough for a leading release header.
inline constexpr std::size_t ZUNFINFO_FIRST_BYTES = 1024;

// Prints the valid, covered_by_signature and validated_by_signature flags of slot i
// (any slot below 20, filled or not). No result.
void zunf_content_info_print(const zunf_stream_parser *parser, int i);
// Prints the release header at part offset 32 of slot i, or the null-part warning for an
// empty slot. No result.
void zunf_release_header_print(const zunf_stream_parser *parser, int i);
// Prints the software header at part offset 32 of slot i, or the null-part warning for an
// empty slot. No result.
void zunf_content_software_print(const zunf_stream_parser *parser, int i);
