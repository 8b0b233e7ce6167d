// From the plan to flash: the preparation pass settles what must be written before the
// critical region is entered (partial images, -rewrite, kept partitions that went bad), and
// the write-out pass erases, writes and reads back every partition planned for writing.
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "front/kiv_log.hpp"
#include "hostconfig/mtd.hpp"
#include "install/kiv_install.hpp"
#include "kivl/kivl.hpp"
#include "tools/verify.hpp"
#include "util/qx.hpp"
#include "util/stdio_file.hpp"

namespace {
constexpr std::size_t DEVICE_NAME_LEN = 120;

// Planning records the new contents for every partition to be written before the first
// write. When the write-out stops early, the partitions it never reached still hold what
// they held at load time, and the saved hostconfig must say so.
kivl_record loaded_record;

void restore_unreached(kiv_install_ctx *ctx, int failed) {
    for (int k = failed + 1; k < static_cast<int>(KIVM_MAX_ELEMS); ++k) {
        const kivl_kivm_elem &e = ctx->kivm[k];
        if (e.action != KIV_ACTION_WRITE || e.partinfo_idx < 0 ||
            e.partinfo_idx >= static_cast<int>(KIVL_PARTINFOS))
            continue;
        const int p = e.partinfo_idx;
        kivl_record &rec = ctx->kdata->rec;
        rec.pinfometa[p] = loaded_record.pinfometa[p];
        std::memcpy(rec.partinfo[p].mountpnt, loaded_record.partinfo[p].mountpnt,
                    sizeof rec.partinfo[p].mountpnt);
        std::memcpy(rec.partinfo[p].fstype, loaded_record.partinfo[p].fstype,
                    sizeof rec.partinfo[p].fstype);
    }
}

bool nothing_to_do(const kivl_kivm_elem &e) {
    return e.action == -1 || e.action == KIV_ACTION_NONE;
}

// A kept partition failed its check and the image carries the content: schedule the write,
// into a free partition of the pool when another set still uses the old one. Returns 0, or
// the exit code.
int schedule_rewrite(kiv_install_ctx *ctx, kivl_kivm_elem &e) {
    kivl_data *kd = ctx->kdata;
    kiv_log_both(LOG_NOTICE, "CRC32 validation for partition %i failed marking it for reinstall\n",
                 e.partinfo_idx);
    if (kivl_partinfo_owned_by_set(kd, e.partinfo_idx, ctx->setidx) == 1) {
        kiv_log_both(LOG_NOTICE, "Other sets also refer to partition %i.\n", e.partinfo_idx);
        const int fresh = kivl_get_unused_partinfo(kd, e.poolname, ctx->setidx);
        if (fresh == -1) {
            kiv_log_both(LOG_CRIT, "No free partitions in pool\n");
            return 1;
        }
        kiv_log_both(LOG_NOTICE, "Use free partition %i instead\n", fresh);
        std::int8_t *refs = kd->rec.sets[ctx->setidx].refs;
        std::size_t r = 0;
        while (r < KIVL_REFS && refs[r] != e.partinfo_idx)
            ++r;
        if (r == KIVL_REFS) {
            kiv_log_both(LOG_CRIT, "Could not repleace pref in install set\n");
            return 1;
        }
        refs[r] = static_cast<std::int8_t>(fresh);
        e.partinfo_idx = fresh;
    }
    // Written from the image, so the partition's metadata must describe the image's part,
    // also where the old partition is reused.
    kivl_meta_import_pinfometa(kd, kiv_install_elem_part(ctx, e), &e);
    e.action = KIV_ACTION_WRITE;
    return 0;
}

// Writes the element's content part in its layout to the opened device. Returns false
// (logged) on a short write, a failed seek or an unknown layout.
bool write_layout(int fd, const char *device, const zunf_content_header *part, int wts) {
    const std::uint8_t *hdr = zunf_bytes(part);
    const std::uint32_t hdr_len = part->hdr_length.get();
    const std::uint32_t body_len = part->body_length.get();
    const std::uint8_t *body = hdr + hdr_len;

    // A device may take fewer bytes than asked (a caught signal, a driver's request size):
    // the rest is written from where it stopped. Only an error, or a device that takes
    // nothing more, fails.
    auto put = [&](const std::uint8_t *p, std::uint32_t len) {
        while (len > 0) {
            errno = 0; // a count of 0 sets none
            const ssize_t n = ::write(fd, p, len);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                kiv_log(LOG_ERR, "Could not fwrite to %s, errno=%i result=%i\n", device, errno,
                        static_cast<int>(n));
                return false;
            }
            p += n;
            len -= static_cast<std::uint32_t>(n);
        }
        return true;
    };
    switch (wts) {
    case 1:
        return put(body, body_len);
    case 2:
        return put(hdr, hdr_len) && put(body, body_len);
    case 3: {
        if (!put(body, body_len)) return false;
        // The gap stays erased: stepped over, never written.
        const off_t gap = static_cast<off_t>(zunf_pad4(body_len) - body_len);
        const off_t at = ::lseek(fd, gap, SEEK_CUR);
        if (at != static_cast<off_t>(zunf_pad4(body_len))) {
            kiv_log(LOG_ERR, "Could not fwrite to %s, errno=%i result=%i\n", device, errno,
                    static_cast<int>(at));
            return false;
        }
        return put(hdr, hdr_len);
    }
    default:
        kiv_log(LOG_ERR, "Unknown WTS, skip\n");
        return false;
    }
}

// Bytes a layout puts on the device, gap included: all of them must be erased first, so
// that no byte is ever programmed into a block that was not erased.
std::uint32_t written_length(const zunf_content_header *part, int wts) {
    const std::uint32_t body_len = part->body_length.get();
    switch (wts) {
    case 2:
        return part->hdr_length.get() + body_len;
    case 3:
        return zunf_pad4(body_len) + part->hdr_length.get();
    default:
        return body_len;
    }
}

enum class Written { ok, failed, verify_failed };

Written write_element(kiv_install_ctx *ctx, int i, const zunf_content_header *part) {
    kivl_kivm_elem &e = ctx->kivm[i];
    kivl_data *kd = ctx->kdata;
    char device[DEVICE_NAME_LEN];
    // An unusable pattern leaves the name empty, and the erase below then fails.
    kiv_device_path(device, sizeof device, ctx->opts->device, kd->rec.partinfo[e.partinfo_idx].pn);

    if (mtd_fn_erase(device, 0, written_length(part, e.wts)) != 0) return Written::failed;
    qx_printf("Writing out %u bytes of data to %s\n", part->body_length.get(), device);
    {
        Fd fd(::open(device, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
        if (!fd) {
            kiv_log(LOG_ERR, "Could not open %s for write\n", device);
            return Written::failed;
        }
        if (!write_layout(fd.get(), device, part, e.wts)) return Written::failed;
    }
    if (kd->rec.pinfometa[e.partinfo_idx].hdr.body_crc.get() == 0) {
        kiv_log(LOG_INFO,
                "WARNING: Could not verify write as some meta data is missing from hostconfig\n");
        return Written::ok;
    }
    if (crc32_check(kd, e.partinfo_idx, e.wts) != KIV_CRC_OK) {
        kiv_log(LOG_ERR, "CRC32 VERIFY FAILED: partinfo_idx=%i se_idx=%i\n", e.partinfo_idx, i);
        return Written::verify_failed;
    }
    return Written::ok;
}
} // namespace

void kiv_install_keep_loaded(const kivl_data *kdata) {
    loaded_record = kdata->rec;
}

int kiv_install_prepare(kiv_install_ctx *ctx) {
    bool partial_logged = false;
    for (kivl_kivm_elem &e : ctx->kivm) {
        if (nothing_to_do(e)) continue;
        if (e.cidx == -1 && !partial_logged) {
            kiv_log_both(LOG_NOTICE, "Handling partial ZUNF\n");
            partial_logged = true;
        }
        if (e.action == KIV_ACTION_WRITE) continue;
        // Only a part the image holds can be written: besides cidx -1, a line may name a
        // part the image lacks, and a skipped part never arrived.
        const zunf_content_header *part = kiv_install_elem_part(ctx, e);
        if (ctx->opts->rewrite && part != nullptr && e.action == KIV_ACTION_KEEP) {
            kiv_log_both(LOG_NOTICE, "Mark partition %i for rewrite\n", e.partinfo_idx);
            kivl_meta_import_pinfometa(ctx->kdata, part, &e);
            e.action = KIV_ACTION_WRITE;
            continue;
        }
        if (ctx->opts->onlymeta) continue;
        if (crc32_check(ctx->kdata, e.partinfo_idx, e.wts) == KIV_CRC_OK) continue;
        if (part == nullptr) {
            kiv_log_both(LOG_CRIT,
                         "CRC32 validation of partition %i failed. Only fixable with a "
                         "non-partial ZUNF.\n",
                         e.partinfo_idx);
            return KIV_EXIT_ERR_PARTIAL_CRC;
        }
        const int r = schedule_rewrite(ctx, e);
        if (r != 0) return r;
    }
    return 0;
}

kiv_write_out_result kiv_install_write_out(kiv_install_ctx *ctx) {
    kiv_write_out_result out{false, 0};
    const kiv_options *o = ctx->opts;
    for (int i = 0; i < static_cast<int>(KIVM_MAX_ELEMS); ++i) {
        kivl_kivm_elem &e = ctx->kivm[i];
        if (e.action == -1 || e.used == 0) continue;
        if (e.action != KIV_ACTION_WRITE && !o->verbose) continue;
        const zunf_content_header *part = kiv_install_elem_part(ctx, e);
        const char *name = part != nullptr ? part->name : "<null>";
        kiv_log(LOG_INFO, "%i: name=%.*s action=%i zunf_cidx=%i partinfo_idx=%i wts=%i\n", i,
                static_cast<int>(ZUNF_NAME_LEN), name, e.action, e.cidx, e.partinfo_idx, e.wts);
        if (e.action != KIV_ACTION_WRITE || o->dryrun || o->onlymeta) continue;
        // Planning only writes elements whose part is in the image, into a partition.
        QX_ASSERT("kiv", part != nullptr && e.partinfo_idx >= 0 &&
                             e.partinfo_idx < static_cast<int>(KIVL_PARTINFOS));

        out.pool_members = kivl_partpool_items_count(ctx->kdata, e.poolname);
        const Written w = write_element(ctx, i, part);
        if (w == Written::ok) continue;
        if (w == Written::failed)
            kiv_log_both(LOG_CRIT, "FAILED TO INSTALL %.*s INTO %i\n",
                         static_cast<int>(ZUNF_NAME_LEN), part->name, e.partinfo_idx);
        kivl_partinfo_mark_meta_invalid(ctx->kdata, e.partinfo_idx);
        restore_unreached(ctx, i);
        out.failed = true;
        break;
    }
    return out;
}
