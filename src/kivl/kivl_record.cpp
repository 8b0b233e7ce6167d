// The upgrade data record: creation, and its trip into and out of the hostconfig.
#include <cstring>

#include "hostconfig/hostconfig.hpp"
#include "kivl/kivl.hpp"
#include "util/qx.hpp"

namespace {
constexpr const char *MODULE = "kivl";
}

int kivl_init(kivl_data *data) {
    QX_ASSERT(MODULE, data != nullptr);
    std::memset(static_cast<void *>(data), 0, sizeof *data);
    return 1;
}

int kivl_hostconfig_export(kivl_data *data, hostconfig *hc) {
    QX_ASSERT(MODULE, data != nullptr);
    QX_ASSERT(MODULE, hc != nullptr);
    // The record is a byte layout (little-endian fields, alignment 1): its object
    // representation is the persisted format.
    return hostconfig_add_body(hc, &data->rec, KIVL_RECORD_SIZE, KIVL_PART_NAME) == 1 ? 1 : -1;
}

int kivl_hostconfig_import(kivl_data *data, hostconfig *hc) {
    QX_ASSERT(MODULE, data != nullptr);
    QX_ASSERT(MODULE, hc != nullptr);
    const zunf_content_header *part = hostconfig_find_part(hc, KIVL_PART_NAME);
    if (part == nullptr) return -1;
    // A shorter body would have the copy run into whatever follows it in the image.
    if (part->body_length < KIVL_RECORD_SIZE) return -1;
    const std::uint8_t *body = hostconfig_get_body(hc, KIVL_PART_NAME);
    std::memcpy(static_cast<void *>(&data->rec), body, KIVL_RECORD_SIZE);
    return 1;
}
