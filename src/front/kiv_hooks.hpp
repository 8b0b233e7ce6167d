// Optional functions a platform plug-in may provide. Each is a weak reference: it stays
// null when nothing defines it, and the caller leaves its step out. The kiv binary is
// linked with -rdynamic, so a shared library loaded with the program (LD_PRELOAD or a
// DT_NEEDED entry) supplies them through the dynamic loader; C linkage keeps the names
// plain for plug-ins written in C.
#pragma once

struct kivl_data;
struct hostconfig;

extern "C" {

// Called by activate after the new active set has been recorded (saved unless -dryrun),
// with the action's upgrade data and the hostconfig handle that load filled. Its result
// is ignored.
__attribute__((weak)) int kiv_activate_hook_post(kivl_data *data, hostconfig *hc);

} // extern "C"
