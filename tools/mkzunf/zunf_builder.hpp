// Producer side of the ZUNF container: release images, hostconfig images and partition
// contents with their software block, plus deliberately broken variants for tests.
//
// Everything is built in memory through the little-endian records of zunf_format.hpp.
// CRCs are computed innermost first (part body, part header, image body, image header),
// because every header CRC covers the body CRC stored in it. A fault is applied at its
// own level before the outer CRCs are computed, so each fault is the only defect.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "zunf/zunf_format.hpp"

namespace mkzunf {

using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

// Version triple of release and software headers.
struct Version {
    std::uint8_t major = 0;
    std::uint8_t minor = 0;
    std::uint16_t build = 0;
};

// Parses "MAJOR.MINOR.BUILD" (decimal, each within its field). Returns true on success.
bool parse_version(std::string_view text, Version &out);

// Returns the bytes of a text (no terminating NUL added).
Bytes to_bytes(std::string_view text);

// Deliberate defects of an image. Every fault changes exactly one thing; the CRCs
// around it are computed over the changed bytes so that they stay valid.
struct ImageFaults {
    std::optional<std::size_t> part_hdr_crc; // part whose stored hdr_crc is wrong
    std::optional<std::size_t>
        part_body_crc; // part whose stored body_crc is wrong (hdr_crc covers it)
    std::optional<std::size_t>
        part_hdr_length; // part whose hdr_length field says part_hdr_length_value
    std::uint16_t part_hdr_length_value = 31; // stored value; the layout itself is unchanged
    bool image_hdr_crc = false;               // stored image hdr_crc is wrong
    bool image_body_crc = false;              // stored image body_crc is wrong (hdr_crc covers it)
    int bad_magic = 0;                        // 1: first half "FNUZ" broken, 2: second half "ZUNF"
    std::optional<std::uint8_t> version;      // stored image version (hdr_crc covers it)
    std::optional<std::uint16_t> image_hdr_length; // stored image hdr_length, layout unchanged
    std::optional<std::size_t> truncate_to;        // cut the finished image to this many bytes
    Bytes garbage;                                 // appended after the finished image
};

// One content part as laid out: a 32-byte common header, the type-specific header, zero
// fill up to hdr_length, the body, zero padding to a multiple of 4.
struct PartSpec {
    std::uint16_t type_id = ZUNF_TYPE_DATA;
    std::string name; // stored cut to 15 characters
    std::uint16_t hdr_length = ZUNF_CONTENT_HDR_LEN;
    Bytes type_header; // bytes at part offset 32
    Bytes body;
};

class ImageBuilder {
  public:
    // Release header part: type 1, hdr_length 76, body = text and a NUL.
    ImageBuilder &add_release_header(Version v, std::uint32_t date, std::string_view build_id,
                                     std::string_view text);
    // Release metadata part "kivm": type 3, hdr_length 32, body = text and a NUL.
    ImageBuilder &add_kivm(std::string_view text);
    // Software part: type 4, hdr_length 64, body = content.
    ImageBuilder &add_software(std::string_view name, Version v, std::string_view build_id,
                               ByteView content);
    // Data part: type 3, hdr_length 32.
    ImageBuilder &add_data(std::string_view name, ByteView body);
    // Any part; hdr_length is stored as given (values below 32 + type_header.size() keep
    // the physical header at that size).
    ImageBuilder &add_raw_part(std::uint16_t type_id, std::string_view name,
                               std::uint16_t hdr_length, ByteView type_header, ByteView body);
    ImageBuilder &add_part(PartSpec part);

    // Fault setters; each returns *this.
    ImageBuilder &fault_part_hdr_crc(std::size_t index);
    ImageBuilder &fault_part_body_crc(std::size_t index);
    ImageBuilder &fault_part_hdr_length(std::size_t index, std::uint16_t value);
    ImageBuilder &fault_image_hdr_crc();
    ImageBuilder &fault_image_body_crc();
    // half: 1 the first four magic bytes, 2 the second four.
    ImageBuilder &fault_bad_magic(int half);
    ImageBuilder &fault_version(std::uint8_t version);
    ImageBuilder &fault_image_hdr_length(std::uint16_t value);
    ImageBuilder &fault_truncate(std::size_t size);
    ImageBuilder &fault_append(ByteView garbage);
    ImageBuilder &set_faults(const ImageFaults &faults);

    const std::vector<PartSpec> &parts() const { return parts_; }
    const ImageFaults &faults() const { return faults_; }

    // Returns the finished image.
    Bytes build() const;

  private:
    std::vector<PartSpec> parts_;
    ImageFaults faults_;
};

// Returns the 64-byte software part header describing content: type 4, hdr_length 64,
// body_length/body_crc of content, software version, hdr_crc over bytes 4..63.
zunf_pinfometa make_software_block(std::string_view name, Version v, std::string_view build_id,
                                   ByteView content);
// Recomputes the block's hdr_crc after a caller changed its fields.
void reseal_software_block(zunf_pinfometa &block);

// Returns a hostconfig image: one data part (type 3, hdr_length 32) per (name, body) in order.
Bytes build_hostconfig(const std::vector<std::pair<std::string, Bytes>> &parts,
                       const ImageFaults &faults = {});

// Returns what a partition holds after a write in layout wts: 1 the content; 2 the block
// then the content; 3 the content, gap_fill bytes up to a multiple of 4, then the block.
// Any other wts returns an empty vector.
Bytes build_partition(int wts, const zunf_pinfometa &block, ByteView content,
                      std::uint8_t gap_fill = 0);
Bytes build_partition(int wts, std::string_view name, Version v, std::string_view build_id,
                      ByteView content, std::uint8_t gap_fill = 0);

// Grows bytes to size with fill (erased NOR flash reads 0xFF); never shrinks.
void pad_to(Bytes &bytes, std::size_t size, std::uint8_t fill = 0xFF);

} // namespace mkzunf
