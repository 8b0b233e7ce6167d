// Support layer: report printing, unbuffered console, bounded formatting and copy, panic.
#pragma once

#include <cstdarg>
#include <cstddef>

#define QX_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))

// Formats onto buffered standard output and flushes it. Returns what vprintf returned.
int qx_printf(const char *format, ...) QX_PRINTF(1, 2);
int qx_vprintf(const char *format, va_list args) QX_PRINTF(1, 0);

// Writes text unbuffered to descriptor 1, repeating on EINTR. Returns the bytes written.
unsigned qx_console_puts(const char *text);
// Formats into an 80-byte buffer (at most 79 characters) and writes it to the console.
// Returns the length stored.
int qx_console_vprintf(const char *format, va_list args) QX_PRINTF(1, 0);
int qx_console_printf(const char *format, ...) QX_PRINTF(1, 2);

// Bounded formatting. Returns the number of characters stored without the NUL
// (n - 1 when the text was cut, 0 and an empty buffer on a formatting error).
unsigned qx_vsnprintf(char *buffer, std::size_t n, const char *format, va_list args)
    QX_PRINTF(3, 0);

// strlcpy contract: copies at most size - 1 characters, always terminates when size > 0.
// Returns strlen(src), so a result >= size tells the caller the text was cut.
unsigned qx_strlcpy(char *dst, const char *src, std::size_t size);

// Ends the process through abort() (signal 6). Never returns.
[[noreturn]] void qx_abort();
// Writes "Panic: " and the formatted message on the console, then aborts.
[[noreturn]] void qx_panic(const char *format, ...) QX_PRINTF(1, 2);

// Internal precondition check; `module` names the source module in the panic text.
#define QX_ASSERT(module, cond)                                                                    \
    do {                                                                                           \
        if (!(cond)) qx_panic("*** ASSERT in %s at %d\n", module, __LINE__);                       \
    } while (0)
