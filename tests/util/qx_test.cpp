// Support layer output: bounded copy and formatting, the unbuffered console, flushed
// report printing, and the panic that ends the process.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <cwchar>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#include "front/fd_capture.hpp"
#include "util/qx.hpp"

namespace {

unsigned format(char *buf, std::size_t n, const char *fmt, ...) QX_PRINTF(3, 4);
unsigned format(char *buf, std::size_t n, const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    unsigned r = qx_vsnprintf(buf, n, fmt, args);
    va_end(args);
    return r;
}

TEST(QxStrlcpy, CopiesAtMostSizeMinusOneAndReturnsTheSourceLength) {
    const std::pair<std::size_t, const char *> rows[] = {
        {0, nullptr}, {1, ""}, {6, "abcde"}, {7, "abcdef"}, {16, "abcdef"}}; // null: no write
    for (const auto &[size, stored] : rows) {
        SCOPED_TRACE(size);
        char dst[20];
        std::memset(dst, 'X', sizeof dst);
        EXPECT_EQ(qx_strlcpy(dst, "abcdef", size), 6u);
        std::size_t len = stored ? std::strlen(stored) + 1 : 0;
        EXPECT_EQ(std::string(dst, len), stored ? std::string(stored) + '\0' : "");
        for (std::size_t i = len; i < sizeof dst; ++i)
            EXPECT_EQ(dst[i], 'X') << "byte " << i << " written past the copy";
    }
}

TEST(QxVsnprintf, ReturnsWhatWasStored) {
    char buf[80];
    EXPECT_EQ(format(buf, sizeof buf, "%s", std::string(79, 'x').c_str()), 79u) << "exact fit";
    EXPECT_EQ(format(buf, sizeof buf, "%s", std::string(100, 'h').c_str()), 79u);
    EXPECT_EQ(std::string(buf), std::string(79, 'h'));
    EXPECT_EQ(format(buf, 1, "%d", 12345), 0u);
    EXPECT_STREQ(buf, "");
    // In the C locale a wide character outside ASCII cannot be converted: the platform
    // formatter reports an error, and the buffer is left empty.
    std::strcpy(buf, "stale");
    EXPECT_EQ(format(buf, sizeof buf, "ab%lc", static_cast<wint_t>(0x20AC)), 0u);
    EXPECT_STREQ(buf, "");
}

TEST(QxConsole, PrintfCutsAt79AndPutsWritesEverythingUnbuffered) {
    FdCapture out(1);
    EXPECT_EQ(qx_console_printf("%s", std::string(200, 'm').c_str()), 79);
    const std::string big(100000, 'b');
    EXPECT_EQ(qx_console_puts(big.c_str()), big.size());
    EXPECT_EQ(out.peek(), std::string(79, 'm') + big);
}

TEST(QxConsole, FailedWriteEndsTheLoop) {
    // Descriptor 1 open read-only: every write fails with EBADF.
    std::fflush(stdout);
    int saved = ::dup(1);
    int ro = ::open("/dev/null", O_RDONLY);
    ASSERT_GE(ro, 0);
    ::dup2(ro, 1);
    unsigned written = qx_console_puts("x");
    ::dup2(saved, 1);
    ::close(saved);
    ::close(ro);
    EXPECT_EQ(written, 0u);
}

TEST(QxPrintf, FlushesAfterEveryCall) {
    FdCapture out(1);
    EXPECT_EQ(qx_printf("value %d\n", 42), 9);
    EXPECT_EQ(qx_printf("%s", "no newline"), 10);
    EXPECT_EQ(out.peek(), "value 42\nno newline") << "visible without another flush";
}

// Death tests match the child's standard error; the console is descriptor 1.
void console_to_stderr() {
    ::dup2(2, 1);
}

TEST(QxPanicDeathTest, PanicLineOnTheConsoleThenSignal6) {
    EXPECT_EXIT(
        {
            console_to_stderr();
            qx_panic("*** ASSERT in %s at %d\n", "kivl", 100);
        },
        testing::KilledBySignal(SIGABRT), "^Panic: \\*\\*\\* ASSERT in kivl at 100\n$");
    const int line = __LINE__ + 5;
    EXPECT_EXIT(
        {
            console_to_stderr();
            volatile bool ok = false;
            QX_ASSERT("zunf_stream_parser", ok);
        },
        testing::KilledBySignal(SIGABRT),
        "^Panic: \\*\\*\\* ASSERT in zunf_stream_parser at " + std::to_string(line) + "\n$");
    EXPECT_EXIT(
        {
            console_to_stderr();
            qx_panic("%s", std::string(100, 'p').c_str());
        },
        testing::KilledBySignal(SIGABRT), "^Panic: p{79}$");
    EXPECT_EXIT(qx_abort(), testing::KilledBySignal(SIGABRT), "");
}

} // namespace
