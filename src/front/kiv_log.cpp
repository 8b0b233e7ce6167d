#include "front/kiv_log.hpp"

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <unistd.h>

#include "util/signals_held.hpp"

int kiv_critical_depth = 0;

namespace {
constexpr std::size_t MSG_LEN = 1024;

enum class Channel { StderrMaybeSyslog, StderrAndSyslog, SyslogOnly };

void emit(Channel ch, int priority, const char *format, va_list args) QX_PRINTF(3, 0);
void emit(Channel ch, int priority, const char *format, va_list args) {
    // The process guard's signal handler logs through here, and its handler runs with no
    // other signal blocked. A second signal arriving while a message is half-written would
    // re-enter syslog() and stdio and hang on their locks; two quick signals to the parent
    // did exactly that. So no handler may run while a message is being written.
    SignalsHeld held;
    char msg[MSG_LEN];
    qx_vsnprintf(msg, sizeof msg, format, args);
    if (ch != Channel::SyslogOnly) std::fprintf(stderr, "%s", msg);
    // On a terminal the operator reads standard error; boot and upgrade scripts redirect
    // their output, and then only the system log keeps the message.
    bool to_syslog = ch != Channel::StderrMaybeSyslog || !::isatty(1);
    if (to_syslog) syslog(priority, "%s", msg); // never pass message text as a format
}
} // namespace

void kiv_log_open() {
    openlog("KIV", LOG_NDELAY, LOG_USER);
    // syslog() stamps the local time; the first time conversion of a process reads the
    // zone file and allocates. Done now, before any handler is installed, a handler's
    // note never allocates, whatever allocation it interrupts.
    tzset();
}

void kiv_log(int priority, const char *format, ...) {
    va_list args;
    va_start(args, format);
    emit(Channel::StderrMaybeSyslog, priority, format, args);
    va_end(args);
}

void kiv_log_both(int priority, const char *format, ...) {
    va_list args;
    va_start(args, format);
    emit(Channel::StderrAndSyslog, priority, format, args);
    va_end(args);
}

void kiv_critical_start(const char *format, ...) {
    if (++kiv_critical_depth <= 1) {
        va_list args;
        va_start(args, format);
        emit(Channel::SyslogOnly, LOG_NOTICE, format, args);
        va_end(args);
    }
}

void kiv_critical_end(const char *format, ...) {
    if (kiv_critical_depth == 1) {
        va_list args;
        va_start(args, format);
        emit(Channel::SyslogOnly, LOG_NOTICE, format, args);
        va_end(args);
    }
    --kiv_critical_depth;
}
