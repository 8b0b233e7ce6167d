// The parsed command line of one run, passed by pointer to every action.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr std::size_t KIV_PATH_LEN = 100;   // path fields: 99 characters and a NUL
inline constexpr std::size_t KIV_PRODUCT_LEN = 16; // 15 characters
inline constexpr std::size_t KIV_PLATFORM_LEN = 8; // 7 characters
inline constexpr std::size_t KIV_PLUGIN_LEN = 200;
inline constexpr std::size_t KIV_MAX_ARGS = 20; // ACTION + 18 arguments + null entry
inline constexpr std::uint32_t KIV_DEFAULT_ZUNFSIZE = 16777216;

struct kiv_options {
    int r;
    int dryrun;
    int test;
    int verbose;
    int force;
    std::int32_t meta_major;
    std::int32_t meta_minor;
    std::int32_t meta_build;
    std::uint32_t zunfsize;
    int rewrite;
    int onlymeta;
    int noactivate;
    int product_set;
    int platform_set;
    int minver_set;
    int iptos_set;
    std::int32_t iptos;
    const char *action;
    char hostcfg[KIV_PATH_LEN];
    char hostcfg_backup[KIV_PATH_LEN];
    char device[KIV_PATH_LEN];
    char lockfile[KIV_PATH_LEN];
    char autosetfile[KIV_PATH_LEN];
    char activesetfile[KIV_PATH_LEN];
    char product[KIV_PRODUCT_LEN];
    char platform[KIV_PLATFORM_LEN];
    std::uint32_t minver_major;
    std::uint32_t minver_minor;
    std::uint32_t minver_build;
    char plugin[KIV_PLUGIN_LEN];
    const char *args[KIV_MAX_ARGS];
    std::int32_t nargs;
};
