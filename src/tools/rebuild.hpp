// Rebuilding a lost hostconfig from the default file and the software blocks that the
// fallback partitions carry behind their contents.
#pragma once

#include <cstdint>

#include "front/kiv_options.hpp"

struct kivl_data;
struct hostconfig;

inline constexpr const char *KIV_HOSTCFG_DEFAULT = "/mnt/appl/hostcfg.default";

// Loads the default hostconfig into data and hc as load() does, then restores the fallback
// partitions' metadata, set 0's first three refs and its release version from their blocks.
// options->hostcfg is the configured path again on return. Returns 1 when complete, else 0
// (data then holds whatever was restored).
int rebuild_hostcfg(kiv_options *options, kivl_data *data, hostconfig *hc);

// Searches the first `bytes` bytes of partition device `index` for a valid software block
// of pool_name that describes the partition's beginning; copies it into pinfometa[index].
// Returns 1 when found, else 0.
int rebuild_meta(kivl_data *data, const char *pool_name, int index, std::uint32_t bytes);
