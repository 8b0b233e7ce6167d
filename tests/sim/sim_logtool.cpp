// sim_logtool: sends messages to /dev/log through glibc's syslog().
//
//   sim_logtool IDENT FACILITY.SEVERITY TEXT [COUNT]
//       logs TEXT, or COUNT times TEXT numbered " #i"
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <syslog.h>

int main(int argc, char **argv) {
    if (argc < 4) {
        std::fprintf(stderr, "usage: sim_logtool IDENT FAC.SEV TEXT [COUNT]\n");
        return 2;
    }
    int facility = std::atoi(argv[2]) << 3;
    const char *dot = std::strchr(argv[2], '.');
    int pri = LOG_MAKEPRI(facility, dot ? std::atoi(dot + 1) : LOG_NOTICE);
    openlog(argv[1], LOG_PID, facility);
    if (argc == 4) syslog(pri, "%s", argv[3]);
    for (int i = 0, count = argc > 4 ? std::atoi(argv[4]) : 0; i < count; ++i)
        syslog(pri, "%s #%d", argv[3], i);
    // No closelog: a message sent right before the exit must be kept all the same.
    return 0;
}
