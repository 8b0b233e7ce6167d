// Messages of the front end and the actions: standard error plus the system log.
#pragma once

#include <syslog.h>

#include "util/qx.hpp"

// Opens the system log as "KIV" (LOG_NDELAY, LOG_USER). Called first thing in a run.
void kiv_log_open();

// Standard error always; the system log only when descriptor 1 is not a terminal.
// Messages are cut to 1023 characters.
void kiv_log(int priority, const char *format, ...) QX_PRINTF(2, 3);
// Standard error and the system log, always.
void kiv_log_both(int priority, const char *format, ...) QX_PRINTF(2, 3);
// Critical-part markers (system log, LOG_NOTICE): only the outermost start and end are logged.
void kiv_critical_start(const char *format, ...) QX_PRINTF(1, 2);
void kiv_critical_end(const char *format, ...) QX_PRINTF(1, 2);

extern int kiv_critical_depth;
