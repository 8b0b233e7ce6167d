/* A C plug-in preloaded into kiv: KIV_TEST_INSTALL_HOOKS="pre_install=3,..." are the hooks'
 * answers (else 0), KIV_TEST_FAIL_OPEN=PATH fails the first open() of PATH with EIO. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>

#include "kiv_plugin.h"

static int failed_once;

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
    memcpy(&real, &symbol, sizeof real); /* ISO C: no object to function pointer cast */
    return real(path, flags, mode);
}

#define OPEN(name)                                                                                 \
    int name(const char *path, int flags, ...) {                                                   \
        va_list args;                                                                              \
        int fd;                                                                                    \
        va_start(args, flags);                                                                     \
        fd = open_as(#name, path, flags, args);                                                    \
        va_end(args);                                                                              \
        return fd;                                                                                 \
    }
OPEN(open)
OPEN(open64)

static int answer(const char *hook) {
    const char *p = getenv("KIV_TEST_INSTALL_HOOKS");
    const size_t n = strlen(hook);
    for (; p != NULL; p = strchr(p, ','), p = p != NULL ? p + 1 : NULL)
        if (strncmp(p, hook, n) == 0 && p[n] == '=') return atoi(p + n + 1);
    return 0;
}

int kiv_install_hook_data_rcvd(struct kiv_install_ctx *ctx) {
    (void)ctx;
    return answer("data_rcvd");
}

#define INSTALL_HOOK(name)                                                                         \
    int kiv_install_hook_##name(struct kiv_install_ctx *ctx, struct hostconfig *hc) {              \
        (void)ctx;                                                                                 \
        (void)hc;                                                                                  \
        return answer(#name);                                                                      \
    }
INSTALL_HOOK(pre_install)
INSTALL_HOOK(post_write_out)
INSTALL_HOOK(post_activate)
