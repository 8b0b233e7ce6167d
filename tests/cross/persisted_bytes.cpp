// The persisted formats written as the product does (release image, record after planning an
// install into set 1, hostconfig around it), to compare other hosts' builds with native.
// Usage: kiv_persisted_bytes DIR   (writes DIR/release.zunf, DIR/kivl.rec, DIR/hostconfig.img)
#include "hostconfig/hostconfig.hpp"
#include "kivl/kivl.hpp"
#include "mkzunf/zunf_builder.hpp"
#include "util/qx.hpp"
#include "zunf/zunf_stream_parser.hpp"

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

namespace {

struct Partition {
    const char *pool;
    std::uint8_t pn;
    std::uint32_t offset, size;
    const char *mountpnt, *fstype;
};

const Partition PARTITIONS[] = {
    {"KNL-SAFE", 7, 0x180000, 0x200000, "", ""},
    {"APPL-SAFE", 19, 0xE00000, 0x600000, "/mnt/appl", "jffs2"},
    {"KNL", 9, 0xB80000, 0x40000, "", ""},
    {"KNL", 10, 0xBC0000, 0x40000, "", ""},
    {"APPL", 13, 0xC80000, 0x40000, "/mnt/appl", "jffs2"},
    {"APPL", 14, 0xCC0000, 0x40000, "/mnt/appl", "jffs2"},
};

bool write_file(const std::string &path, const void *bytes, std::size_t size) {
    std::FILE *f = std::fopen(path.c_str(), "wb");
    const bool ok = f != nullptr && std::fwrite(bytes, 1, size, f) == size;
    return f != nullptr && std::fclose(f) == 0 && ok;
}

int fail(const char *what) {
    std::fprintf(stderr, "kiv_persisted_bytes: %s failed\n", what);
    return 1;
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 2) return fail("usage");
    const std::string dir = argv[1];

    mkzunf::Bytes knl(300, 0x4B), appl(301); // an odd length pads its part
    for (std::size_t i = 0; i < appl.size(); ++i)
        appl[i] = static_cast<std::uint8_t>(i * 7);
    const mkzunf::Bytes image =
        mkzunf::ImageBuilder{}
            .add_release_header({2, 1, 0x1234}, 1790000000, "REL-2.1.4660", "products=demo-board")
            .add_kivm("2,KNL,0,-,-,-,2.1.7,1\n3,APPL,0,/mnt/appl,jffs2,-,2.1.8,3\n")
            .add_software("KNL", {2, 1, 7}, "g1a2b3c", knl)
            .add_software("APPL", {2, 1, 8}, "g1a2b3c", appl)
            .build();
    if (!write_file(dir + "/release.zunf", image.data(), image.size())) return fail("release");

    zunf_stream_parser parser;
    zunf_stream_parser_init(&parser, image.data());
    if (zunf_stream_parser_hdr(&parser, ZUNF_SP_HDR_BYTES) != ZUNF_SP_HDR_OK ||
        zunf_stream_parser_next(&parser, static_cast<std::uint32_t>(image.size()) -
                                             ZUNF_SP_HDR_BYTES) != ZUNF_SP_COMPLETE)
        return fail("parsing the release");
    const zunf_content_header *const *parts = zunf_stream_parser_content_parts(&parser);
    const std::uint8_t *rhdr = zunf_bytes(parts[0]) + ZUNF_CONTENT_HDR_LEN;

    auto data = std::make_unique<kivl_data>();
    kivl_init(data.get());
    data->device = "/nonexistent/mtd%i";
    for (std::size_t i = 0; i < std::size(PARTITIONS); ++i) {
        const Partition &p = PARTITIONS[i];
        kivl_partinfo &pi = data->rec.partinfo[i];
        qx_strlcpy(pi.poolname, p.pool, sizeof pi.poolname);
        pi.pn = p.pn;
        pi.offset = p.offset;
        pi.size = p.size;
        qx_strlcpy(pi.mountpnt, p.mountpnt, sizeof pi.mountpnt);
        qx_strlcpy(pi.fstype, p.fstype, sizeof pi.fstype);
    }
    const char *names[] = {KIVL_SAFESET_NAME, "SET1", "SET2"};
    for (std::size_t s = 0; s < KIVL_SETS; ++s) {
        qx_strlcpy(data->rec.sets[s].name, names[s], KIVL_SET_NAME_LEN);
        std::memset(data->rec.sets[s].refs, -1, KIVL_REFS);
        data->rec.sets[s].bootable = 1;
    }
    data->rec.sets[0].refs[0] = 0, data->rec.sets[0].refs[1] = 1;
    data->rec.sets[2].refs[0] = 3, data->rec.sets[2].refs[1] = 5;
    kivl_partpool_generate(data.get());

    kivl_kivm_elem elems[KIVM_MAX_ELEMS] = {};
    const std::string kivm(reinterpret_cast<const char *>(parts[1]) + ZUNF_CONTENT_HDR_LEN);
    if (kivl_parse_kivmd(elems, KIVM_MAX_ELEMS, kivm.c_str()) != 2 ||
        kivl_meta_install_part1(data.get(), 1, rhdr, elems, "", 0) != KIVL_META_INSTALL_OK ||
        kivl_meta_install(data.get(), 1, rhdr, elems, parts, "", 0) != KIVL_META_INSTALL_OK)
        return fail("planning the install");
    data->rec.actset = 1;
    if (!write_file(dir + "/kivl.rec", &data->rec, sizeof data->rec)) return fail("record");

    // The hostconfig as save() builds it: the parts kept from the loaded one, then the record.
    auto hc = std::make_unique<hostconfig>();
    const char site[] = "site=demo-board";
    if (hostconfig_new(hc.get(), HOSTCONFIG_MAX_SIZE) != 1 ||
        hostconfig_add_body(hc.get(), site, sizeof site, "site settings") != 1 ||
        kivl_hostconfig_export(data.get(), hc.get()) != 1 ||
        hostconfig_save(hc.get(), (dir + "/hostconfig.img").c_str(), nullptr) != 1)
        return fail("hostconfig");
    return 0;
}
