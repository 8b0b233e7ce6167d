// Independent reader (and writer) of hostconfig images and the "KIV data" record, for
// tests that check the bytes the product leaves on flash or in a file.
//
// It deliberately shares nothing with the product: its own CRC-32, its own offsets as
// literal numbers, no product headers. A fault in the product's layout records or CRC
// code therefore shows up as a mismatch here instead of cancelling itself out.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace hcdecode {

// IEEE 802.3 CRC-32 (the value zlib's crc32() gives); 0 for no bytes.
std::uint32_t crc32(std::span<const std::uint8_t> bytes);

// Little-endian access for tests that edit a field of an image; reads past the end give 0.
std::uint32_t get32(std::span<const std::uint8_t> b, std::size_t off);
void put16(std::vector<std::uint8_t> &b, std::size_t off, std::uint16_t v);
void put32(std::vector<std::uint8_t> &b, std::size_t off, std::uint32_t v);

// One content part as it lies in the image.
struct Part {
    std::uint16_t type_id = 0;
    std::uint16_t hdr_length = 0;
    std::string name; // text up to the first NUL of the 16-byte field
    std::vector<std::uint8_t> body;
};

// A whole image. `ok` means: magic right, version 1, hdr_length 16, both image CRCs
// right, the parts exactly fill body_length, every part has hdr_length >= 32 and both
// of its CRCs right. `error` names the first thing that was wrong.
struct Image {
    bool ok = false;
    std::string error;
    std::uint32_t body_length = 0;
    std::size_t size = 0; // 8 + hdr_length + body_length
    std::vector<Part> parts;

    // First part whose name equals `name` exactly, or null.
    const Part *find(std::string_view name) const;
    // Names of all parts in image order.
    std::vector<std::string> names() const;
};

// Decodes the image at the start of `bytes` (trailing bytes, e.g. the rest of a flash
// device, are ignored). Never reads outside `bytes`.
Image decode_image(std::span<const std::uint8_t> bytes);

// --- the 2964-byte upgrade data record ("KIV data" body) ---
inline constexpr std::size_t RECORD_SIZE = 2964;

struct Set {
    std::uint8_t bootable = 0;
    std::string name;
    std::array<std::int8_t, 20> raw_refs{};
    std::vector<int> refs; // up to the first -1, at most 20
};

struct PartInfo {
    std::string poolname; // empty: unused entry
    std::uint8_t pn = 0;
    std::uint32_t offset = 0;
    std::uint32_t size = 0;
    std::string mountpnt;
    std::string fstype;
};

struct ReleaseHeader {
    std::uint8_t major = 0;
    std::uint8_t minor = 0;
    std::uint16_t build = 0;
    std::uint32_t date = 0;
    std::string build_id;
};

struct PinfoMeta {
    std::uint32_t hdr_crc = 0;
    std::uint16_t type_id = 0;
    std::uint16_t hdr_length = 0;
    std::uint32_t body_length = 0;
    std::string name;
    std::uint32_t body_crc = 0;
    std::uint8_t sw_major = 0;
    std::uint8_t sw_minor = 0;
    std::uint16_t sw_build = 0;
    std::string sw_build_id;
};

struct Record {
    std::uint8_t actset = 0;
    std::array<Set, 3> sets{};
    std::array<PartInfo, 20> partinfo{};
    std::array<ReleaseHeader, 3> rhdr{};
    std::array<PinfoMeta, 20> pinfometa{};
};

// Decodes a record body; nullopt when fewer than 2964 bytes are given.
std::optional<Record> decode_record(std::span<const std::uint8_t> body);
// The record of the image's part named exactly "KIV data"; nullopt when the image is not
// ok, the part is missing or its body is not 2964 bytes.
std::optional<Record> decode_kiv_data(const Image &image);
// Convenience: decode_kiv_data(decode_image(bytes)).
std::optional<Record> decode_kiv_data(std::span<const std::uint8_t> bytes);

// --- writers, for seeding flash or files with images the product must read ---

// The 2964 bytes of a record (padding and unused bytes zero; refs taken from raw_refs).
std::vector<std::uint8_t> encode_record(const Record &record);

struct NewPart {
    std::string name; // cut to 15 characters
    std::vector<std::uint8_t> body;
    std::uint16_t type_id = 3;
};

// A finalised image as the product writes it: magic, version 1, hdr_length 16, parts with
// 32-byte headers on 4-byte boundaries, zero padding, all CRCs right.
std::vector<std::uint8_t> encode_image(const std::vector<NewPart> &parts);

// Recomputes CRCs of an image in place after a test edited a field, trusting the lengths
// it holds: the header CRC always (over bytes 12..23 when hdr_length reaches past the
// bytes), the body CRC when the body lies inside the bytes, and with `parts` the CRCs of
// every part that does.
void refresh_crcs(std::vector<std::uint8_t> &image, bool parts = true);

// --- upgrade state bytes at the end of the first 128 KiB of the hostconfig device ---
inline constexpr std::size_t STATE_OFFSET = 131070;

// The state byte of set 1 or 2 (stored complemented) from a dump of the device, or
// nullopt when the dump is too short or set is not 1 or 2.
std::optional<std::uint8_t> state_byte(std::span<const std::uint8_t> device, int set);
// 0 VALID, 1 TEST, 2 BOOT decoded from a state byte.
int decode_state(std::uint8_t state_byte);

} // namespace hcdecode
