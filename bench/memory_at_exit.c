/* Preloaded into a command by scripts/bench.sh: as each of its processes exits, appends
 * one line "RSS PRIVATE" (KiB, from /proc/self/smaps_rollup) to the file named by
 * KIV_BENCH_MEMORY. PRIVATE is the memory that is the process's own (private clean and
 * dirty pages); the rest of RSS is shared file pages such as the C library's code, which
 * every process on the machine maps.
 *
 * A process that never returns from main and never calls exit() writes nothing. Only
 * open, read, write and close are used, so that the measurement touches as little of the
 * C library as it can. */
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/* The value of the line "NAME: VALUE kB" in TEXT, or 0 when there is none. */
static unsigned long field(const char *text, const char *name) {
    size_t len = strlen(name);
    for (const char *p = text; p != NULL && *p != '\0'; p = strchr(p, '\n')) {
        if (*p == '\n') ++p;
        if (strncmp(p, name, len) != 0 || p[len] != ':') continue;
        return strtoul(p + len + 1, NULL, 10);
    }
    return 0;
}

/* Appends VALUE in decimal and then END to LINE, which holds *LEN bytes and has room. */
static void append(char *line, size_t *len, unsigned long value, char end) {
    char digits[20];
    size_t n = 0;
    do {
        digits[n++] = (char)('0' + value % 10);
        value /= 10;
    } while (value != 0 && n < sizeof digits);
    while (n > 0)
        line[(*len)++] = digits[--n];
    line[(*len)++] = end;
}

__attribute__((destructor)) static void memory_at_exit(void) {
    const char *path = getenv("KIV_BENCH_MEMORY");
    if (path == NULL) return;
    static char text[4096];
    int in = open("/proc/self/smaps_rollup", O_RDONLY | O_CLOEXEC);
    if (in < 0) return;
    ssize_t n = read(in, text, sizeof text - 1);
    close(in);
    if (n <= 0) return;
    text[n] = '\0';

    char line[48];
    size_t len = 0;
    append(line, &len, field(text, "Rss"), ' ');
    append(line, &len, field(text, "Private_Clean") + field(text, "Private_Dirty"), '\n');
    int out = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (out < 0) return;
    ssize_t w = write(out, line, len);
    (void)w;
    close(out);
}
