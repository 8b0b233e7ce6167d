// The three MTD requests this system uses: geometry, lock test and erase.
#pragma once

#include <cstdint>
#include <mtd/mtd-user.h>

enum : int {
    MTD_ERR_GETINFO = -1,
    MTD_ERR_ALIGN = -2,
    MTD_ERR_RANGE = -3,
    MTD_ERR_ERASE = -4,
};

// A path is handled as an MTD device when it begins with "/dev/mtd".
bool mtd_path_is_mtd(const char *path);
// Opens path read-only; returns mtd_is_locked on it, or -1 if it cannot be opened.
int mtd_fn_is_locked(const char *path);
// Opens path read-write; returns mtd_erase on it, or -1 if it cannot be opened.
int mtd_fn_erase(const char *path, std::uint32_t offset, std::uint32_t length);
// 0 not locked, > 0 locked, -1 on failure (logged).
int mtd_is_locked(int fd);
// Erases whole blocks covering length bytes from offset (0: to the end). Returns 0, or
// -1 geometry failed, -2 offset not on a block boundary, -3 beyond the end, -4 erase failed.
int mtd_erase(int fd, std::uint32_t offset, std::uint32_t length);
// MEMGETINFO; returns the request's result (0 on success; failure logged).
int _mtd_get_info(int fd, mtd_info_user *info);
