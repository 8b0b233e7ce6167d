/* A platform plug-in as an integrator would write it, in C against kiv_plugin.h, loaded into
 * kiv with LD_PRELOAD. It provides the activate and install hooks and, for the tests, can
 * misbehave on request:
 *
 *   KIV_TEST_HOOK_RECORD=FILE   every hook appends one line per call to FILE:
 *                               "kiv_activate_hook_post actset=N device=PATTERN magic=M\n",
 *                               "kiv_install_hook_NAME set=S value=V\n" with the target set
 *                               and the hook's own number: the bytes received so far
 *                               (data_rcvd), the rebuild result (hcfg_fail), the result
 *                               (on_failure), else the active set in kiv's upgrade data
 *   KIV_TEST_INSTALL_HOOKS=LIST install hooks answer as LIST says ("pre_install=3,
 *                               post_write_out=7"), the others 0
 *   KIV_TEST_HOOK_SIGNALS=term  the activate hook sends SIGTERM and SIGINT to its own process
 *                               (the working child) and SIGTERM to the parent, then returns
 *   KIV_TEST_HOOK_SIGNALS=kill  the activate hook sends SIGKILL to its own process
 *   KIV_TEST_FAIL_OPEN=PATH     the first open() of PATH fails with EIO (a device that does
 *                               not answer once)
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>
#include <unistd.h>

#include "kiv_plugin.h"

int kiv_activate_hook_post(struct kivl_data *data, struct hostconfig *hc) {
    const char *record = getenv("KIV_TEST_HOOK_RECORD");
    const char *signals = getenv("KIV_TEST_HOOK_SIGNALS");
    if (record != NULL) {
        FILE *f = fopen(record, "a");
        if (f != NULL) {
            fprintf(f, "kiv_activate_hook_post actset=%u device=%s magic=%.8s\n",
                    (unsigned)data->rec.actset, data->device, (const char *)hc->image);
            fclose(f);
        }
    }
    if (signals != NULL && strcmp(signals, "term") == 0) {
        kill(getpid(), SIGTERM);
        kill(getpid(), SIGINT);
        kill(getppid(), SIGTERM);
    } else if (signals != NULL && strcmp(signals, "kill") == 0) {
        kill(getpid(), SIGKILL);
    }
    /* Whatever the hook answers, activate does not look at it. */
    return 7;
}

static int failed_once;

/* open() and open64() of PATH, failing the first open of KIV_TEST_FAIL_OPEN with EIO. */
static int open_as(const char *name, const char *path, int flags, va_list args) {
    const char *target = getenv("KIV_TEST_FAIL_OPEN");
    mode_t mode = 0;
    int (*real)(const char *, int, ...);
    void *symbol = dlsym(RTLD_NEXT, name);
    if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE)
        mode = (mode_t)va_arg(args, int);
    if (target != NULL && !failed_once && strcmp(path, target) == 0) {
        failed_once = 1;
        errno = EIO;
        return -1;
    }
    /* ISO C has no conversion from the object pointer dlsym returns to a function pointer. */
    memcpy(&real, &symbol, sizeof real);
    return real(path, flags, mode);
}

int open(const char *path, int flags, ...) {
    va_list args;
    int fd;
    va_start(args, flags);
    fd = open_as("open", path, flags, args);
    va_end(args);
    return fd;
}

int open64(const char *path, int flags, ...) {
    va_list args;
    int fd;
    va_start(args, flags);
    fd = open_as("open64", path, flags, args);
    va_end(args);
    return fd;
}

/* The answer KIV_TEST_INSTALL_HOOKS gives the hook, 0 when it names none. */
static int answer(const char *hook) {
    const char *p = getenv("KIV_TEST_INSTALL_HOOKS");
    const size_t n = strlen(hook);
    for (; p != NULL; p = strchr(p, ','), p = p != NULL ? p + 1 : NULL)
        if (strncmp(p, hook, n) == 0 && p[n] == '=') return atoi(p + n + 1);
    return 0;
}

static int install_hook(const char *hook, const struct kiv_install_ctx *ctx, long value) {
    const char *record = getenv("KIV_TEST_HOOK_RECORD");
    FILE *f = record != NULL ? fopen(record, "a") : NULL;
    if (f != NULL) {
        fprintf(f, "kiv_install_hook_%s set=%u value=%ld\n", hook, (unsigned)ctx->setidx, value);
        fclose(f);
    }
    return answer(hook);
}

int kiv_install_hook_hcfg_fail(struct kiv_install_ctx *ctx, struct hostconfig *hc,
                               int rebuild_result) {
    (void)hc;
    return install_hook("hcfg_fail", ctx, rebuild_result);
}

int kiv_install_hook_data_rcvd(struct kiv_install_ctx *ctx) {
    return install_hook("data_rcvd", ctx, ctx->received);
}

/* The hooks that see the hostconfig handle besides the context; they report the active set. */
#define INSTALL_HOOK(name)                                                                         \
    int kiv_install_hook_##name(struct kiv_install_ctx *ctx, struct hostconfig *hc) {              \
        (void)hc;                                                                                  \
        return install_hook(#name, ctx, ctx->kdata->rec.actset);                                   \
    }
INSTALL_HOOK(pre_metainstall)
INSTALL_HOOK(pre_install)
INSTALL_HOOK(post_write_out)
INSTALL_HOOK(post_activate)

int kiv_install_hook_on_failure(struct kiv_install_ctx *ctx, struct hostconfig *hc, int result) {
    (void)hc;
    install_hook("on_failure", ctx, result);
    return 0;
}
