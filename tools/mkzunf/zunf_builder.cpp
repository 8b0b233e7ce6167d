#include "mkzunf/zunf_builder.hpp"

#include <algorithm>
#include <charconv>

#include "util/crc32.hpp"

namespace mkzunf {
namespace {

constexpr std::size_t IMAGE_HDR_OFFSET = ZUNF_MAGIC_LEN; // image header follows the magic
constexpr std::size_t IMAGE_HDR_CRC_FROM = 4;            // hdr_crc skips itself
constexpr std::size_t RELEASE_BUILD_ID_LEN = sizeof(zunf_release_header::release_build_id);
constexpr std::size_t SOFTWARE_BUILD_ID_LEN = sizeof(zunf_software_header::sw_build_id);
constexpr std::uint8_t MAGIC_BREAK = 0x20; // flips the letter case: still text, never the magic

std::uint32_t crc_of(const std::uint8_t *p, std::size_t n) {
    return crc32_calc(0, p, static_cast<std::uint32_t>(n));
}

// Copies text into a fixed NUL-terminated field, cut to the field size minus one.
template <std::size_t N> void set_text(char (&field)[N], std::string_view text) {
    std::fill(field, field + N, '\0');
    std::copy_n(text.begin(), std::min(text.size(), N - 1), field);
}

Bytes text_body(std::string_view text) {
    Bytes b(text.begin(), text.end());
    b.push_back(0);
    return b;
}

std::size_t physical_header(const PartSpec &p) {
    return std::max<std::size_t>(ZUNF_CONTENT_HDR_LEN + p.type_header.size(), p.hdr_length);
}

std::size_t physical_size(const PartSpec &p) {
    return zunf_pad4(static_cast<std::uint32_t>(physical_header(p) + p.body.size()));
}

// Both halves of the software header record, filled for content; no CRC written.
zunf_pinfometa software_header(std::string_view name, Version v, std::string_view build_id,
                               std::uint32_t body_length) {
    zunf_pinfometa m{};
    m.hdr.type_id = ZUNF_TYPE_SOFTWARE;
    m.hdr.hdr_length = ZUNF_SOFTWARE_PART_HDR_LEN;
    m.hdr.body_length = body_length;
    set_text(m.hdr.name, name);
    m.sw.sw_version_major = v.major;
    m.sw.sw_version_minor = v.minor;
    m.sw.sw_build_number = v.build;
    set_text(m.sw.sw_build_id, build_id);
    return m;
}

Bytes record_bytes(const void *record, std::size_t size) {
    const auto *p = static_cast<const std::uint8_t *>(record);
    return Bytes(p, p + size);
}

} // namespace

bool parse_version(std::string_view text, Version &out) {
    unsigned fields[3] = {};
    const unsigned limits[3] = {0xFFu, 0xFFu, 0xFFFFu};
    const char *p = text.data();
    const char *end = text.data() + text.size();
    for (int i = 0; i < 3; ++i) {
        auto [next, ec] = std::from_chars(p, end, fields[i]);
        if (ec != std::errc{} || next == p || fields[i] > limits[i]) return false;
        p = next;
        if (i < 2) {
            if (p == end || *p != '.') return false;
            ++p;
        }
    }
    if (p != end) return false;
    out.major = static_cast<std::uint8_t>(fields[0]);
    out.minor = static_cast<std::uint8_t>(fields[1]);
    out.build = static_cast<std::uint16_t>(fields[2]);
    return true;
}

Bytes to_bytes(std::string_view text) {
    return Bytes(text.begin(), text.end());
}

ImageBuilder &ImageBuilder::add_release_header(Version v, std::uint32_t date,
                                               std::string_view build_id, std::string_view text) {
    static_assert(RELEASE_BUILD_ID_LEN == 36);
    zunf_release_header rh{};
    rh.release_version_major = v.major;
    rh.release_version_minor = v.minor;
    rh.release_build_number = v.build;
    rh.release_date = date;
    set_text(rh.release_build_id, build_id);
    return add_part({ZUNF_TYPE_RELEASE_HEADER, "release", ZUNF_RELEASE_PART_HDR_LEN,
                     record_bytes(&rh, sizeof rh), text_body(text)});
}

ImageBuilder &ImageBuilder::add_kivm(std::string_view text) {
    return add_part({ZUNF_TYPE_DATA, "kivm", ZUNF_CONTENT_HDR_LEN, {}, text_body(text)});
}

ImageBuilder &ImageBuilder::add_software(std::string_view name, Version v,
                                         std::string_view build_id, ByteView content) {
    static_assert(SOFTWARE_BUILD_ID_LEN == 28);
    zunf_pinfometa m = software_header(name, v, build_id, 0);
    return add_part({ZUNF_TYPE_SOFTWARE, std::string(name), ZUNF_SOFTWARE_PART_HDR_LEN,
                     record_bytes(&m.sw, sizeof m.sw), Bytes(content.begin(), content.end())});
}

ImageBuilder &ImageBuilder::add_data(std::string_view name, ByteView body) {
    return add_part({ZUNF_TYPE_DATA,
                     std::string(name),
                     ZUNF_CONTENT_HDR_LEN,
                     {},
                     Bytes(body.begin(), body.end())});
}

ImageBuilder &ImageBuilder::add_raw_part(std::uint16_t type_id, std::string_view name,
                                         std::uint16_t hdr_length, ByteView type_header,
                                         ByteView body) {
    return add_part({type_id, std::string(name), hdr_length,
                     Bytes(type_header.begin(), type_header.end()),
                     Bytes(body.begin(), body.end())});
}

ImageBuilder &ImageBuilder::add_part(PartSpec part) {
    parts_.push_back(std::move(part));
    return *this;
}

ImageBuilder &ImageBuilder::fault_part_hdr_crc(std::size_t index) {
    faults_.part_hdr_crc = index;
    return *this;
}

ImageBuilder &ImageBuilder::fault_part_body_crc(std::size_t index) {
    faults_.part_body_crc = index;
    return *this;
}

ImageBuilder &ImageBuilder::fault_part_hdr_length(std::size_t index, std::uint16_t value) {
    faults_.part_hdr_length = index;
    faults_.part_hdr_length_value = value;
    return *this;
}

ImageBuilder &ImageBuilder::fault_image_hdr_crc() {
    faults_.image_hdr_crc = true;
    return *this;
}

ImageBuilder &ImageBuilder::fault_image_body_crc() {
    faults_.image_body_crc = true;
    return *this;
}

ImageBuilder &ImageBuilder::fault_bad_magic(int half) {
    faults_.bad_magic = half;
    return *this;
}

ImageBuilder &ImageBuilder::fault_version(std::uint8_t version) {
    faults_.version = version;
    return *this;
}

ImageBuilder &ImageBuilder::fault_image_hdr_length(std::uint16_t value) {
    faults_.image_hdr_length = value;
    return *this;
}

ImageBuilder &ImageBuilder::fault_truncate(std::size_t size) {
    faults_.truncate_to = size;
    return *this;
}

ImageBuilder &ImageBuilder::fault_append(ByteView garbage) {
    faults_.garbage.insert(faults_.garbage.end(), garbage.begin(), garbage.end());
    return *this;
}

ImageBuilder &ImageBuilder::set_faults(const ImageFaults &faults) {
    faults_ = faults;
    return *this;
}

Bytes ImageBuilder::build() const {
    std::size_t size = ZUNF_FIRST_PART_OFFSET;
    for (const PartSpec &p : parts_)
        size += physical_size(p);
    Bytes img(size, 0);

    std::size_t off = ZUNF_FIRST_PART_OFFSET;
    for (std::size_t i = 0; i < parts_.size(); ++i) {
        const PartSpec &p = parts_[i];
        std::uint8_t *base = img.data() + off;
        std::size_t hdr_phys = physical_header(p);
        std::copy(p.type_header.begin(), p.type_header.end(), base + ZUNF_CONTENT_HDR_LEN);
        std::copy(p.body.begin(), p.body.end(), base + hdr_phys);

        auto *h = reinterpret_cast<zunf_content_header *>(base);
        h->type_id = p.type_id;
        std::uint16_t stored_len = p.hdr_length;
        if (faults_.part_hdr_length == i) stored_len = faults_.part_hdr_length_value;
        h->hdr_length = stored_len;
        h->body_length = static_cast<std::uint32_t>(p.body.size());
        set_text(h->name, p.name);

        std::uint32_t body_crc = crc_of(p.body.data(), p.body.size());
        h->body_crc = faults_.part_body_crc == i ? ~body_crc : body_crc;

        // The header CRC covers what a reader takes as the header: the stored length,
        // kept within the image so that a deliberately odd length never reads past it.
        std::size_t cover =
            std::clamp<std::size_t>(stored_len, IMAGE_HDR_CRC_FROM, img.size() - off);
        std::uint32_t hdr_crc = crc_of(base + IMAGE_HDR_CRC_FROM, cover - IMAGE_HDR_CRC_FROM);
        h->hdr_crc = faults_.part_hdr_crc == i ? ~hdr_crc : hdr_crc;
        off += physical_size(p);
    }

    std::copy(ZUNF_MAGIC, ZUNF_MAGIC + ZUNF_MAGIC_LEN, img.begin());
    if (faults_.bad_magic == 1)
        img[0] ^= MAGIC_BREAK;
    else if (faults_.bad_magic == 2)
        img[ZUNF_MAGIC_LEN / 2] ^= MAGIC_BREAK;

    auto *ih = reinterpret_cast<zunf_image_header *>(img.data() + IMAGE_HDR_OFFSET);
    ih->version = faults_.version.value_or(ZUNF_VERSION);
    ih->reserved = 0;
    std::uint16_t stored_hdr_len = faults_.image_hdr_length.value_or(ZUNF_IMAGE_HDR_LEN);
    ih->hdr_length = stored_hdr_len;
    std::size_t body_len = img.size() - ZUNF_FIRST_PART_OFFSET;
    ih->body_length = static_cast<std::uint32_t>(body_len);
    std::uint32_t body_crc = crc_of(img.data() + ZUNF_FIRST_PART_OFFSET, body_len);
    ih->body_crc = faults_.image_body_crc ? ~body_crc : body_crc;
    std::size_t cover =
        std::clamp<std::size_t>(stored_hdr_len, ZUNF_IMAGE_HDR_LEN, img.size() - IMAGE_HDR_OFFSET);
    std::uint32_t hdr_crc =
        crc_of(img.data() + IMAGE_HDR_OFFSET + IMAGE_HDR_CRC_FROM, cover - IMAGE_HDR_CRC_FROM);
    ih->hdr_crc = faults_.image_hdr_crc ? ~hdr_crc : hdr_crc;

    if (faults_.truncate_to && *faults_.truncate_to < img.size()) img.resize(*faults_.truncate_to);
    img.insert(img.end(), faults_.garbage.begin(), faults_.garbage.end());
    return img;
}

zunf_pinfometa make_software_block(std::string_view name, Version v, std::string_view build_id,
                                   ByteView content) {
    zunf_pinfometa m =
        software_header(name, v, build_id, static_cast<std::uint32_t>(content.size()));
    m.hdr.body_crc = crc_of(content.data(), content.size());
    reseal_software_block(m);
    return m;
}

void reseal_software_block(zunf_pinfometa &block) {
    block.hdr.hdr_crc =
        crc_of(zunf_bytes(&block) + IMAGE_HDR_CRC_FROM, sizeof block - IMAGE_HDR_CRC_FROM);
}

Bytes build_hostconfig(const std::vector<std::pair<std::string, Bytes>> &parts,
                       const ImageFaults &faults) {
    ImageBuilder b;
    for (const auto &[name, body] : parts)
        b.add_data(name, body);
    b.set_faults(faults);
    return b.build();
}

Bytes build_partition(int wts, const zunf_pinfometa &block, ByteView content,
                      std::uint8_t gap_fill) {
    const std::uint8_t *blk = zunf_bytes(&block);
    auto padded = static_cast<std::size_t>(zunf_pad4(static_cast<std::uint32_t>(content.size())));
    // Sized once and filled in place: the layouts are fixed offsets, not a stream.
    Bytes out;
    switch (wts) {
    case 1:
        out.assign(content.begin(), content.end());
        break;
    case 2:
        out.resize(sizeof block + content.size());
        std::copy_n(blk, sizeof block, out.begin());
        std::copy(content.begin(), content.end(), out.begin() + sizeof block);
        break;
    case 3:
        out.resize(padded + sizeof block, gap_fill);
        std::copy(content.begin(), content.end(), out.begin());
        std::copy_n(blk, sizeof block, out.begin() + static_cast<std::ptrdiff_t>(padded));
        break;
    default:
        break;
    }
    return out;
}

Bytes build_partition(int wts, std::string_view name, Version v, std::string_view build_id,
                      ByteView content, std::uint8_t gap_fill) {
    return build_partition(wts, make_software_block(name, v, build_id, content), content, gap_fill);
}

void pad_to(Bytes &bytes, std::size_t size, std::uint8_t fill) {
    if (bytes.size() < size) bytes.resize(size, fill);
}

} // namespace mkzunf
