// The end of an install: the bookkeeping files other runs read, the critical region around
// the flash writes, the one save of the hostconfig (after a failed write too, so that it no
// longer claims the content of the partition that failed), TEST state on request, and the
// hooks around these steps.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

#include "front/kiv_helpers.hpp"
#include "front/kiv_hooks.hpp"
#include "front/kiv_log.hpp"
#include "hostconfig/hostconfig_flags.hpp"
#include "install/kiv_install.hpp"
#include "kivl/kivl.hpp"
#include "util/fnfile.hpp"
#include "util/stdio_file.hpp"

namespace {
// Marks an autodetected install as tried, holding the set that was active before it.
// Returns 0, or the exit code.
int create_autoset(const kiv_options *o, const kivl_data *kd) {
    Fd fd(::open(o->autosetfile, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!fd) {
        if (errno == EEXIST)
            kiv_log(LOG_ERR, "Autodetected set installation has already been tried by KIV with "
                             "or without success.\n");
        else
            kiv_log(LOG_ERR, "install: could not CREATE|EXCL %s\n", o->autosetfile);
        return KIV_EXIT_ERR_AUTOSET;
    }
    const std::uint8_t old_set = kd->rec.actset;
    const ssize_t n = ::write(fd.get(), &old_set, 1);
    const int write_errno = errno;
    if (fd.reset() != 0 || n != 1) {
        if (n < 0) kiv_log(LOG_ERR, "errno = %i\n", write_errno);
        ::unlink(o->autosetfile);
        kiv_log(LOG_ERR, "Failed to store old setidx into %s\n", o->autosetfile);
        return KIV_EXIT_ERR_AUTOSET;
    }
    return 0;
}

// Records the outcome of the write-out in the hostconfig. Returns -1 to go on to the
// post-activate hook, else the result.
int commit(kiv_install_ctx *ctx, hostconfig *hc, bool autodetected,
           const kiv_write_out_result &out) {
    const kiv_options *o = ctx->opts;
    kivl_data *kd = ctx->kdata;
    ::unlink(o->activesetfile);
    if (!out.failed) {
        if (!o->noactivate)
            kd->rec.actset = ctx->setidx;
        else
            fnprintf(o->activesetfile, "%d", ctx->setidx);
    }
    if (save(o, kd, hc, "install") != 1) {
        kiv_log_both(LOG_CRIT, "KIV_EXIT_FATAL_ERR_HOSTCONFIG_WRITE\n");
        return KIV_EXIT_FATAL_ERR_HOSTCONFIG_WRITE;
    }
    if (out.failed) {
        if (autodetected) ::unlink(o->autosetfile);
        if (out.pool_members == 1) {
            kiv_log_both(LOG_CRIT, "KIV_EXIT_FATAL_ERR_SINGLETON_WRITE");
            return KIV_EXIT_FATAL_ERR_SINGLETON_WRITE;
        }
        return 1;
    }
    return -1;
}
} // namespace

int kiv_install_commit(kiv_install_ctx *ctx, hostconfig *hc, bool autodetected) {
    const kiv_options *o = ctx->opts;
    if (autodetected && !o->dryrun) {
        const int r = create_autoset(o, ctx->kdata);
        if (r != 0) return r;
    }
    if (kiv_install_hook_pre_install != nullptr) {
        const int r = kiv_install_hook_pre_install(ctx, hc);
        if (r != 0) return r;
    }
    if (!o->dryrun) kiv_critical_start("install: entering critical region\n");

    const kiv_write_out_result out = kiv_install_write_out(ctx);
    int result =
        kiv_install_hook_post_write_out != nullptr ? kiv_install_hook_post_write_out(ctx, hc) : 0;
    bool activated = result == 0;
    if (result == 0 && !o->dryrun) {
        const int r = commit(ctx, hc, autodetected, out);
        if (r >= 0) {
            result = r;
            activated = false;
        } else if (o->test) {
            if (set_upgrade_state(kivl_actset_get(ctx->kdata), KIV_UPGRADE_STATE_TEST) != 0) {
                kiv_log_both(LOG_CRIT, "cannot set test mode\n");
                return 1;
            }
        }
    }
    if (activated)
        result =
            kiv_install_hook_post_activate != nullptr ? kiv_install_hook_post_activate(ctx, hc) : 0;
    if (!o->dryrun) kiv_critical_end("install: leaving critical region with exitcode=%i\n", result);
    if (result != 0 && kiv_install_hook_on_failure != nullptr)
        kiv_install_hook_on_failure(ctx, hc, result);
    return result;
}
