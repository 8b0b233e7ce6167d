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

#include "util/qx.hpp"

namespace {

// Points descriptor 1 at a fresh temporary file while alive; text() reads it back.
class StdoutToFile {
  public:
    StdoutToFile() {
        std::fflush(stdout);
        char path[] = "/tmp/kiv_qx_test_XXXXXX";
        file_ = ::mkstemp(path);
        ::unlink(path);
        saved_ = ::dup(1);
        ::dup2(file_, 1);
    }
    ~StdoutToFile() {
        std::fflush(stdout);
        ::dup2(saved_, 1);
        ::close(saved_);
        ::close(file_);
    }
    StdoutToFile(const StdoutToFile &) = delete;
    StdoutToFile &operator=(const StdoutToFile &) = delete;

    // What reached the descriptor so far, without flushing anything first.
    std::string text() const {
        std::string out;
        char buf[4096];
        ssize_t n;
        off_t off = 0;
        while ((n = ::pread(file_, buf, sizeof buf, off)) > 0) {
            out.append(buf, static_cast<std::size_t>(n));
            off += n;
        }
        return out;
    }

  private:
    int file_ = -1;
    int saved_ = -1;
};

unsigned format(char *buf, std::size_t n, const char *fmt, ...) QX_PRINTF(3, 4);
unsigned format(char *buf, std::size_t n, const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    unsigned r = qx_vsnprintf(buf, n, fmt, args);
    va_end(args);
    return r;
}

TEST(QxStrlcpy, CopiesAtMostSizeMinusOneAndReturnsTheSourceLength) {
    struct Case {
        std::size_t size;
        const char *stored; // nullptr: nothing written
    };
    const Case cases[] = {{0, nullptr}, {1, ""},       {4, "abc"},
                          {6, "abcde"}, {7, "abcdef"}, {16, "abcdef"}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.size);
        char dst[20];
        std::memset(dst, 'X', sizeof dst);
        EXPECT_EQ(qx_strlcpy(dst, "abcdef", c.size), 6u);
        if (!c.stored) {
            EXPECT_EQ(dst[0], 'X');
            continue;
        }
        std::size_t len = std::strlen(c.stored);
        EXPECT_EQ(std::string(dst, len), c.stored);
        EXPECT_EQ(dst[len], '\0');
        for (std::size_t i = c.size; i < sizeof dst; ++i)
            EXPECT_EQ(dst[i], 'X') << "byte " << i << " past the destination size";
    }
}

TEST(QxVsnprintf, ReturnsWhatWasStored) {
    char buf[80];
    const std::string hundred(100, 'h');
    EXPECT_EQ(format(buf, sizeof buf, "%s", hundred.c_str()), 79u);
    EXPECT_EQ(std::string(buf), std::string(79, 'h'));

    EXPECT_EQ(format(buf, sizeof buf, "%s", "0123456789"), 10u);
    EXPECT_STREQ(buf, "0123456789");

    EXPECT_EQ(format(buf, sizeof buf, "%s", std::string(79, 'x').c_str()), 79u) << "exact fit";
    EXPECT_EQ(format(buf, sizeof buf, "%s", std::string(80, 'x').c_str()), 79u) << "one too many";
    EXPECT_EQ(format(buf, 1, "%d", 12345), 0u);
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(format(buf, sizeof buf, "%s", ""), 0u);
}

TEST(QxVsnprintf, FormattingErrorLeavesAnEmptyBuffer) {
    // In the C locale a wide character outside ASCII cannot be converted: the
    // platform formatter reports an error.
    char buf[80];
    std::strcpy(buf, "stale");
    EXPECT_EQ(format(buf, sizeof buf, "ab%lc", static_cast<wint_t>(0x20AC)), 0u);
    EXPECT_STREQ(buf, "");
}

TEST(QxConsole, PrintfCutsAt79Characters) {
    const std::string msg(200, 'm');
    StdoutToFile out;
    EXPECT_EQ(qx_console_printf("%s", msg.c_str()), 79);
    EXPECT_EQ(out.text(), std::string(79, 'm'));
}

TEST(QxConsole, PutsWritesTheWholeTextUnbuffered) {
    const std::string big(100000, 'b');
    StdoutToFile out;
    EXPECT_EQ(qx_console_puts("hello "), 6u);
    EXPECT_EQ(qx_console_puts(big.c_str()), big.size());
    EXPECT_EQ(out.text(), "hello " + big);
}

TEST(QxConsole, EmptyTextMakesNoWrite) {
    // Descriptor 1 open read-only: any write() call, even of zero bytes, fails with
    // EBADF, so an untouched errno proves that none was made.
    std::fflush(stdout);
    int saved = ::dup(1);
    int ro = ::open("/dev/null", O_RDONLY);
    ASSERT_GE(ro, 0);
    ::dup2(ro, 1);
    errno = 0;
    unsigned empty = qx_console_puts("");
    int empty_errno = errno;
    errno = 0;
    unsigned one = qx_console_puts("x");
    int one_errno = errno;
    ::dup2(saved, 1);
    ::close(saved);
    ::close(ro);

    EXPECT_EQ(empty, 0u);
    EXPECT_EQ(empty_errno, 0);
    EXPECT_EQ(one, 0u) << "a failed write ends the loop and counts nothing";
    EXPECT_EQ(one_errno, EBADF) << "the probe itself sees writes";
}

TEST(QxPrintf, FlushesAfterEveryCall) {
    StdoutToFile out;
    EXPECT_EQ(qx_printf("value %d\n", 42), 9);
    EXPECT_EQ(out.text(), "value 42\n") << "visible on the descriptor without another flush";
    EXPECT_EQ(qx_printf("%s", "no newline"), 10);
    EXPECT_EQ(out.text(), "value 42\nno newline");
}

// Death tests match the child's standard error; the console is descriptor 1.
void console_to_stderr() {
    ::dup2(2, 1);
}

TEST(QxPanicDeathTest, WritesThePanicLineAndAborts) {
    EXPECT_EXIT(
        {
            console_to_stderr();
            qx_panic("*** ASSERT in %s at %d\n", "kivl", 100);
        },
        testing::KilledBySignal(SIGABRT), "^Panic: \\*\\*\\* ASSERT in kivl at 100\n$");
}

TEST(QxPanicDeathTest, AssertNamesModuleAndLine) {
    const int line = __LINE__ + 5;
    EXPECT_EXIT(
        {
            console_to_stderr();
            volatile bool ok = false;
            QX_ASSERT("zunf_stream_parser", ok);
        },
        testing::KilledBySignal(SIGABRT),
        "^Panic: \\*\\*\\* ASSERT in zunf_stream_parser at " + std::to_string(line) + "\n$");
}

TEST(QxPanicDeathTest, LongMessageIsCutOnTheConsole) {
    EXPECT_EXIT(
        {
            console_to_stderr();
            qx_panic("%s", std::string(100, 'p').c_str());
        },
        testing::KilledBySignal(SIGABRT), "^Panic: p{79}$");
}

TEST(QxPanicDeathTest, AbortEndsBySignal6) {
    EXPECT_EXIT(qx_abort(), testing::KilledBySignal(SIGABRT), "");
}

TEST(QxAssert, HoldingConditionDoesNothing) {
    StdoutToFile out;
    QX_ASSERT("kiv", 1 + 1 == 2);
    EXPECT_EQ(out.text(), "");
}

} // namespace
