// Plug-ins written in C see the records through kiv_plugin.h. Both descriptions of every
// record must lay it out the same, field for field: a mismatch here would let a hook read
// or write the wrong bytes of kiv's memory, so it fails the build instead.
#include <cstddef>
#include <cstdint>

#include "front/kiv_hooks.hpp"
#include "front/kiv_options.hpp"
#include "hostconfig/hostconfig.hpp"
#include "install/kiv_install.hpp"
#include "kivl/kivl.hpp"

#define KIV_PLUGIN_TYPES_ONLY
namespace c_side {
#include "kiv_plugin.h"
} // namespace c_side

#define SAME_SIZE(rec) static_assert(sizeof(::rec) == sizeof(c_side::rec), #rec)
#define SAME(rec, field)                                                                           \
    static_assert(offsetof(::rec, field) == offsetof(c_side::rec, field) &&                        \
                      sizeof(::rec::field) == sizeof(c_side::rec::field),                          \
                  #rec "." #field)

SAME_SIZE(kiv_options);
SAME(kiv_options, r);
SAME(kiv_options, dryrun);
SAME(kiv_options, test);
SAME(kiv_options, verbose);
SAME(kiv_options, force);
SAME(kiv_options, meta_major);
SAME(kiv_options, meta_minor);
SAME(kiv_options, meta_build);
SAME(kiv_options, zunfsize);
SAME(kiv_options, rewrite);
SAME(kiv_options, onlymeta);
SAME(kiv_options, noactivate);
SAME(kiv_options, product_set);
SAME(kiv_options, platform_set);
SAME(kiv_options, minver_set);
SAME(kiv_options, iptos_set);
SAME(kiv_options, iptos);
SAME(kiv_options, action);
SAME(kiv_options, hostcfg);
SAME(kiv_options, hostcfg_backup);
SAME(kiv_options, device);
SAME(kiv_options, lockfile);
SAME(kiv_options, autosetfile);
SAME(kiv_options, activesetfile);
SAME(kiv_options, product);
SAME(kiv_options, platform);
SAME(kiv_options, minver_major);
SAME(kiv_options, minver_minor);
SAME(kiv_options, minver_build);
SAME(kiv_options, plugin);
SAME(kiv_options, args);
SAME(kiv_options, nargs);

SAME_SIZE(zunf_image_header);
SAME(zunf_image_header, hdr_crc);
SAME(zunf_image_header, version);
SAME(zunf_image_header, hdr_length);
SAME(zunf_image_header, body_length);
SAME(zunf_image_header, body_crc);

SAME_SIZE(zunf_content_header);
SAME(zunf_content_header, hdr_crc);
SAME(zunf_content_header, type_id);
SAME(zunf_content_header, hdr_length);
SAME(zunf_content_header, body_length);
SAME(zunf_content_header, name);
SAME(zunf_content_header, body_crc);

SAME_SIZE(zunf_release_header);
SAME(zunf_release_header, release_version_major);
SAME(zunf_release_header, release_version_minor);
SAME(zunf_release_header, release_build_number);
SAME(zunf_release_header, release_date);
SAME(zunf_release_header, release_build_id);

SAME_SIZE(zunf_software_header);
SAME(zunf_software_header, sw_version_major);
SAME(zunf_software_header, sw_version_minor);
SAME(zunf_software_header, sw_build_number);
SAME(zunf_software_header, sw_build_id);

SAME_SIZE(zunf_pinfometa);
SAME(zunf_pinfometa, hdr);
SAME(zunf_pinfometa, sw);

SAME_SIZE(kivl_set);
SAME(kivl_set, bootable);
SAME(kivl_set, name);
SAME(kivl_set, refs);

SAME_SIZE(kivl_partinfo);
SAME(kivl_partinfo, poolname);
SAME(kivl_partinfo, pn);
SAME(kivl_partinfo, offset);
SAME(kivl_partinfo, size);
SAME(kivl_partinfo, mountpnt);
SAME(kivl_partinfo, fstype);

SAME_SIZE(kivl_record);
SAME(kivl_record, actset);
SAME(kivl_record, sets);
SAME(kivl_record, partinfo);
SAME(kivl_record, rhdr);
SAME(kivl_record, pinfometa);

SAME_SIZE(kivl_pool);
SAME(kivl_pool, name);
SAME(kivl_pool, items);
SAME(kivl_pool, cnt);

SAME_SIZE(kivl_data);
SAME(kivl_data, device);
SAME(kivl_data, rec);
SAME(kivl_data, pools);
SAME(kivl_data, pools_count);
SAME(kivl_data, pools_valid);

SAME_SIZE(hostconfig);
SAME(hostconfig, image);
SAME(hostconfig, hdr);
SAME(hostconfig, parts);
SAME(hostconfig, capacity);
SAME(hostconfig, count);
SAME(hostconfig, used);

SAME_SIZE(kivl_kivm_elem);
SAME(kivl_kivm_elem, used);
SAME(kivl_kivm_elem, cidx);
SAME(kivl_kivm_elem, poolname);
SAME(kivl_kivm_elem, reserved);
SAME(kivl_kivm_elem, mountpnt);
SAME(kivl_kivm_elem, fstype);
SAME(kivl_kivm_elem, platform);
SAME(kivl_kivm_elem, meta_valid);
SAME(kivl_kivm_elem, wts);
SAME(kivl_kivm_elem, reserved1);
SAME(kivl_kivm_elem, sw_version_major);
SAME(kivl_kivm_elem, sw_version_minor);
SAME(kivl_kivm_elem, sw_build_number);
SAME(kivl_kivm_elem, reserved2);
SAME(kivl_kivm_elem, action);
SAME(kivl_kivm_elem, partinfo_idx);

SAME_SIZE(kiv_install_ctx);
SAME(kiv_install_ctx, state);
SAME(kiv_install_ctx, hdr_consumed);
SAME(kiv_install_ctx, received);
SAME(kiv_install_ctx, parser);
SAME(kiv_install_ctx, parts_seen);
SAME(kiv_install_ctx, zunf_buf);
SAME(kiv_install_ctx, zunf_size);
SAME(kiv_install_ctx, resume_offset);
SAME(kiv_install_ctx, kivm);
SAME(kiv_install_ctx, kivm_count);
SAME(kiv_install_ctx, kdata);
SAME(kiv_install_ctx, setidx);
SAME(kiv_install_ctx, rhdr);
SAME(kiv_install_ctx, zunf_hdr);
SAME(kiv_install_ctx, opts);
SAME(kiv_install_ctx, skip_enabled);
SAME(kiv_install_ctx, resume_range);
SAME(kiv_install_ctx, next_elem);
