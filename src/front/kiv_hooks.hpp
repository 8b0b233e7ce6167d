// Optional functions a platform plug-in may provide. Each is a weak reference: it stays
// null when nothing defines it, and the caller leaves its step out. An undefined weak
// reference stays in the binary's dynamic symbol table, so a shared library loaded with
// the program (LD_PRELOAD or a DT_NEEDED entry) supplies them through the dynamic loader;
// C linkage keeps the names plain for plug-ins written in C. kiv_plugin.h declares the
// same functions and records for plug-in writers.
#pragma once

struct kivl_data;
struct hostconfig;
struct kiv_install_ctx;

extern "C" {

// Called by activate after the new active set has been recorded (saved unless -dryrun),
// with the action's upgrade data and the hostconfig handle that load filled. Its result
// is ignored.
__attribute__((weak)) int kiv_activate_hook_post(kivl_data *data, hostconfig *hc);

// Install hooks: 0 lets the install go on. Where each is called, and what a non-zero
// result does, is written at its call.
__attribute__((weak)) int kiv_install_hook_hcfg_fail(kiv_install_ctx *ctx, hostconfig *hc,
                                                     int rebuild_result);
__attribute__((weak)) int kiv_install_hook_data_rcvd(kiv_install_ctx *ctx);
__attribute__((weak)) int kiv_install_hook_pre_metainstall(kiv_install_ctx *ctx, hostconfig *hc);
__attribute__((weak)) int kiv_install_hook_pre_install(kiv_install_ctx *ctx, hostconfig *hc);
__attribute__((weak)) int kiv_install_hook_post_write_out(kiv_install_ctx *ctx, hostconfig *hc);
__attribute__((weak)) int kiv_install_hook_post_activate(kiv_install_ctx *ctx, hostconfig *hc);
__attribute__((weak)) int kiv_install_hook_on_failure(kiv_install_ctx *ctx, hostconfig *hc,
                                                      int result);

} // extern "C"
