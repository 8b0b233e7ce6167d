/* A platform plug-in as an integrator would write it, in C, loaded into kiv with
 * LD_PRELOAD. It provides the activate hook and, for the tests, can misbehave on request:
 *
 *   KIV_TEST_HOOK_RECORD=FILE   the hook appends one line per call to FILE:
 *                               "kiv_activate_hook_post actset=N device=PATTERN magic=M\n"
 *   KIV_TEST_HOOK_SIGNALS=term  the hook sends SIGTERM and SIGINT to its own process (the
 *                               working child) and SIGTERM to the parent, then returns
 *   KIV_TEST_HOOK_SIGNALS=kill  the hook sends SIGKILL to its own process
 *   KIV_TEST_FAIL_OPEN=PATH     the first open() of PATH fails with EIO (a device that does
 *                               not answer once)
 *
 * The hook reads the upgrade data and the hostconfig handle by their documented layouts:
 * the data starts with the device pattern pointer followed by the record, whose first byte
 * is the active set; the handle starts with the image, whose first 8 bytes are the magic.
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

int kiv_activate_hook_post(void *data, void *hostconfig);

int kiv_activate_hook_post(void *data, void *hostconfig) {
    const char *record = getenv("KIV_TEST_HOOK_RECORD");
    const char *signals = getenv("KIV_TEST_HOOK_SIGNALS");
    if (record != NULL) {
        FILE *f = fopen(record, "a");
        if (f != NULL) {
            const unsigned char *bytes = data;
            const char *device = *(const char *const *)data;
            fprintf(f, "kiv_activate_hook_post actset=%u device=%s magic=%.8s\n",
                    (unsigned)bytes[sizeof(const char *)], device, (const char *)hostconfig);
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
