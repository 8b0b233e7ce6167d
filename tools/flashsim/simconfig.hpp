// Configuration shared by the flash simulator, the device sandbox and the test
// support library: the flash layout of the simulated device, fault injection
// requests and the backing image files.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kiv::sim {

// Highest device number the simulator serves (mtd0..mtdN).
inline constexpr int kMaxMtd = 63;
inline constexpr std::uint32_t kDefaultEraseSize = 64 * 1024;

struct MtdDef {
    int index = 0;
    std::uint64_t size = 0;
    std::uint32_t erasesize = kDefaultEraseSize;
    bool locked = false;
};

struct Layout {
    std::vector<MtdDef> mtds; // sorted by index, unique
    std::optional<std::string> cmdline;

    const MtdDef *find(int index) const;
};

// The layout used when none is given (text of tools/sandbox/default.layout).
std::string_view default_layout_text();
inline constexpr std::string_view kDefaultCmdline = "console=ttyS0 KIVSET=SET1";

// Parses a number with an optional 0x prefix and an optional K/M/G suffix.
bool parse_size(std::string_view text, std::uint64_t &out);

// Parses layout text.  On failure returns false and sets err to
// "line N: reason".
bool parse_layout(std::string_view text, Layout &out, std::string &err);

// Parses "mtd5" or "5".
bool parse_mtd_name(std::string_view text, int &out);

struct Fault {
    enum class Kind { Erase, Write, Short, Bitflip, Powercut };
    Kind kind = Kind::Erase;
    int mtd = -1;
    std::uint64_t offset = 0; // byte offset (erase: block number * erasesize)
    std::uint64_t block = 0;  // erase faults only
    int bit = 0;              // bitflip only
    std::uint64_t opno = 0;   // powercut only

    static const char *kind_name(Kind k);
};

// Fault syntax:
//   erase:mtdN:BLOCK        erase of erase block BLOCK fails with EIO
//   write:mtdN:OFFSET       a write covering OFFSET fails with EIO
//   short:mtdN:OFFSET       a write covering OFFSET stores only the bytes before it
//   bitflip:mtdN:OFFSET:BIT reads of OFFSET return bit BIT inverted
//   powercut:N              power is lost after flash operation N
bool parse_fault(std::string_view text, Fault &out, std::string &err);

// Checks that the fault refers to a device of the layout and lies inside it.
bool check_fault(const Fault &f, const Layout &layout, std::string &err);

std::string image_name(int mtd); // "mtdN.img"

// Creates every missing image of the layout in dir, filled with 0xFF (erased
// NOR), and checks that existing ones have the layout's size.
bool ensure_images(const std::string &dir, const Layout &layout, std::string &err);

// Reads a whole file.  Returns false with err set on failure.
bool read_file(const std::string &path, std::string &out, std::string &err);

} // namespace kiv::sim
