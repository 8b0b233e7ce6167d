// Support layer edges no command reaches: CRC-32 fast paths, the panic line, failed closes.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <string>
#include <unistd.h>

#include "util/crc32.hpp"
#include "util/fnfile.hpp"
#include "util/qx.hpp"

namespace {

// {start (of a chained CRC), offset, length, zlib's CRC}, around the fast paths' block sizes.
TEST(Util, Crc32KnownValues) {
    std::uint8_t buf[4200];
    for (std::size_t i = 0; i < sizeof buf; ++i)
        buf[i] = static_cast<std::uint8_t>(i * i + i / 7);
    const std::uint32_t rows[][4] = {
        {0x12345678u, 2, 0, 0x12345678u},    {0x00000000u, 1, 1, 0xA505DF1Bu},
        {0x00000000u, 3, 7, 0x026A2ACEu},    {0x00000000u, 5, 9, 0x29BA662Bu},
        {0xFFFFFFFFu, 7, 63, 0xAEDDCC5Fu},   {0x00000000u, 1, 64, 0xF51EC449u},
        {0xDEADBEEFu, 3, 65, 0x7821B0D7u},   {0x00000000u, 2, 101, 0x6763D9A5u},
        {0x00000000u, 5, 128, 0xA2D2E6F6u},  {0x89ABCDEFu, 1, 143, 0xF9026979u},
        {0x00000000u, 3, 4001, 0xF251B4D4u},
    };
    for (const auto &[start, offset, len, crc] : rows) {
        EXPECT_EQ(crc32_calc(start, buf + offset, len), crc) << len;
        EXPECT_EQ(crc32_calc_bytewise(start, buf + offset, len), crc) << len;
    }
}

// The console is descriptor 1; a death test reads the child's standard error.
TEST(QxPanicDeathTest, PanicLineCutToTheConsoleBufferThenSignal6) {
    EXPECT_EXIT((::dup2(2, 1), qx_panic("%s", std::string(100, 'p').c_str())),
                testing::KilledBySignal(SIGABRT), "^Panic: p{79}$");
}

// A full device takes the data into the stream buffer and refuses it at the close.
TEST(Util, FnFileFailedOpenOrCloseFailsTheCall) {
    EXPECT_EQ(fnwrite("/dev/full", "x", 1), -1);
    EXPECT_EQ(fnprintf("/dev/full", "%d", 1), -1);
    EXPECT_EQ(fnprintf("/nonexistent/f", "%d", 1), -1);
}

} // namespace
