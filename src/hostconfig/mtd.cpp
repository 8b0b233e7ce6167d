// The only place that talks to MTD character devices with ioctl.
#include "hostconfig/mtd.hpp"

#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <syslog.h>

#include "util/qx.hpp"
#include "util/stdio_file.hpp"

namespace {
constexpr const char *MTD_PREFIX = "/dev/mtd";
constexpr std::size_t MTD_PREFIX_LEN = 8;
constexpr std::size_t LOG_LEN = 128;

// MTD failures go to the system log only: the callers decide what the operator sees.
void mtd_log(const char *format, ...) QX_PRINTF(1, 2);
void mtd_log(const char *format, ...) {
    char text[LOG_LEN];
    va_list args;
    va_start(args, format);
    qx_vsnprintf(text, sizeof text, format, args);
    va_end(args);
    syslog(LOG_ERR, "%s", text);
}
} // namespace

bool mtd_path_is_mtd(const char *path) {
    return path != nullptr && std::strncmp(path, MTD_PREFIX, MTD_PREFIX_LEN) == 0;
}

int mtd_fn_is_locked(const char *path) {
    Fd fd(::open(path, O_RDONLY));
    if (!fd) return -1;
    return mtd_is_locked(fd.get());
}

int mtd_fn_erase(const char *path, std::uint32_t offset, std::uint32_t length) {
    Fd fd(::open(path, O_RDWR));
    if (!fd) return -1;
    return mtd_erase(fd.get(), offset, length);
}

int _mtd_get_info(int fd, mtd_info_user *info) {
    int r = ::ioctl(fd, MEMGETINFO, info);
    if (r != 0) mtd_log("%s: GetInfo failed(%d)\n", "_mtd_get_info", r);
    return r;
}

int mtd_is_locked(int fd) {
    mtd_info_user info{};
    if (_mtd_get_info(fd, &info) != 0) return -1;
    erase_info_user region{};
    region.start = 0;
    region.length = info.size;
    int r = ::ioctl(fd, MEMISLOCKED, &region);
    if (r < 0) {
        mtd_log("%s: Is locked failed(%d)\n", "mtd_is_locked", r);
        return -1;
    }
    return r;
}

int mtd_erase(int fd, std::uint32_t offset, std::uint32_t length) {
    mtd_info_user info{};
    if (_mtd_get_info(fd, &info) != 0) return MTD_ERR_GETINFO;
    // A device without an erase block size cannot be erased block by block.
    if (info.erasesize == 0) return MTD_ERR_GETINFO;
    if (offset % info.erasesize != 0) return MTD_ERR_ALIGN;
    if (length == 0) length = info.size - offset;
    // Summed in 64 bits so that a huge length cannot wrap past the device end check.
    if (std::uint64_t{offset} + length > info.size) return MTD_ERR_RANGE;
    std::uint64_t blocks = (std::uint64_t{length} + info.erasesize - 1) / info.erasesize;
    for (std::uint64_t k = 0; k < blocks; ++k) {
        erase_info_user region{};
        region.start = static_cast<std::uint32_t>(offset + k * info.erasesize);
        region.length = info.erasesize;
        int r = ::ioctl(fd, MEMERASE, &region);
        if (r != 0) {
            mtd_log("%s: Erase failed(%d)\n", "mtd_erase", r);
            return MTD_ERR_ERASE;
        }
    }
    return 0;
}
