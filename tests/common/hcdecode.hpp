// Independent reader and writer of hostconfig images and the "KIV data" record. It shares
// nothing with the product (own CRC-32, literal offsets), so a layout or CRC fault in the
// product shows up as a mismatch instead of cancelling itself out.
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

struct Part {
    std::uint16_t type_id = 0;
    std::uint16_t hdr_length = 0;
    std::string name; // text up to the first NUL of the 16-byte field
    std::vector<std::uint8_t> body;
};

// A whole image; `ok`: magic, version 1, hdr_length 16, all CRCs right, parts (each with
// hdr_length >= 32) exactly fill body_length. `error` names the first thing wrong.
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

// Decodes the image at the start of `bytes` (the rest of a device is ignored).
Image decode_image(std::span<const std::uint8_t> bytes);

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

// The record in the part named exactly "KIV data" of an ok image, else nullopt.
std::optional<Record> decode_kiv_data(const Image &image);
std::optional<Record> decode_kiv_data(std::span<const std::uint8_t> bytes);

// The 2964 bytes of a record (padding and unused bytes zero; refs taken from raw_refs).
std::vector<std::uint8_t> encode_record(const Record &record);

struct NewPart {
    std::string name; // cut to 15 characters
    std::vector<std::uint8_t> body;
    std::uint16_t type_id = 3;
};

// A finalised image as the product writes it (32-byte part headers, zero padding).
std::vector<std::uint8_t> encode_image(const std::vector<NewPart> &parts);

// Recomputes an edited image's CRCs in place, trusting its lengths where they fit: the
// header CRC, the body CRC, and with `parts` those of every part.
void refresh_crcs(std::vector<std::uint8_t> &image, bool parts = true);

inline constexpr std::size_t STATE_OFFSET = 131070;

} // namespace hcdecode
