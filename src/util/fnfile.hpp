// Whole-file helpers: one open, one operation, one close. None prints anything.
#pragma once

#include <cstddef>
#include <cstdint>

#include "util/qx.hpp"

// Reads up to n bytes of the file into buf. Returns the count read, or -1.
std::int32_t fnread(const char *path, void *buf, std::size_t n);
// Writes n bytes (mode "w": a file is truncated, a device written from its start).
// Returns the count written, or -1 (also when close fails).
std::int32_t fnwrite(const char *path, const void *buf, std::size_t n);
// Scans the file with a scanf format. Returns the scan's result, or -1.
int fnscanf(const char *path, const char *format, ...) __attribute__((format(scanf, 2, 3)));
// Writes formatted text to the file (mode "w"). Returns the characters written, or -1.
int fnprintf(const char *path, const char *format, ...) QX_PRINTF(2, 3);
// Size of the file (links followed); 0 for a character device. Returns -1 on failure.
std::int32_t fnsize(const char *path);
