// Helpers every action shares: reading and writing the hostconfig with its upgrade data,
// feeding an image file to a consumer, naming a set, and the verbose dump.
#pragma once

#include <cstddef>

#include "front/kiv_options.hpp"

struct kivl_data;
struct hostconfig;

// Consumer of kiv_feed_file, called like fwrite: (buffer start, 1, bytes just read,
// context). Returns the number of bytes it consumed.
using kiv_feed_consumer = std::size_t (*)(void *buffer, std::size_t size, std::size_t count,
                                          void *context);

// Clears `data` (device pattern set from the options), loads the hostconfig (primary,
// else backup when hostcfg_backup is set and its MTD device reports unlocked) into `hc`
// and imports "KIV data". Returns 1, or -1 (reason logged at LOG_DEBUG).
int load(const kiv_options *options, kivl_data *data, hostconfig *hc);

// Writes a fresh hostconfig: the parts of `loaded` except "KIV data", in order, then the
// current record as "KIV data"; backup first under the same rule as load, inside a
// critical part naming `caller`. `loaded` is not changed. Returns 1, or -1 (logged at
// LOG_DEBUG).
int save(const kiv_options *options, kivl_data *data, const hostconfig *loaded, const char *caller);

// Reads the file into buffer (at most `size` bytes, at most two reads) and hands each read
// to the consumer. Returns the bytes consumed, or 0 when the file cannot be opened or
// read, or the consumer takes fewer bytes than it was given.
std::size_t kiv_feed_file(const char *path, void *buffer, std::size_t size,
                          kiv_feed_consumer consumer, void *context);

// Set index 0..2 for a number ("%i" syntax when it starts with a digit) or a set name;
// -1 for a null word, an unknown name or a number outside 0..2.
int kiv_parse_setid(const kivl_data *data, const char *word);

// Generates the pool table, then prints the upgrade data and the upgrade states.
void kiv_dump(const kiv_options *options, kivl_data *data);
