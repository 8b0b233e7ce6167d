/* kiv_trace.c: a tracing plug-in for kiv, the starting point for a platform plug-in.
 *
 * It defines every hook kiv offers. Each one writes one line naming the hook and what it
 * was given, then returns 0 so that kiv goes on exactly as without a plug-in:
 *
 *   - always to the system log, at LOG_INFO, prefixed "trace: " (kiv has already opened
 *     the log as "KIV"; calling openlog() here would rename kiv's own messages);
 *   - and, when KIV_TRACE_FILE names a file, appended to that file.
 *
 * Load it into kiv only, e.g. LD_PRELOAD=/usr/lib/libkiv_trace.so kiv install ... (README.md).
 * Replace a hook's body by the platform's work; a non-zero return has the effect written
 * at that hook in kiv_plugin.h.
 */
#define _POSIX_C_SOURCE 200809L

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#include "kiv_plugin.h"

#if defined(__GNUC__)
#define TRACE_PRINTF __attribute__((format(printf, 1, 2)))
#else
#define TRACE_PRINTF
#endif

static void trace(const char *format, ...) TRACE_PRINTF;

static void trace(const char *format, ...) {
    char line[1024];
    const char *path = getenv("KIV_TRACE_FILE");
    va_list args;
    va_start(args, format);
    vsnprintf(line, sizeof line, format, args);
    va_end(args);
    syslog(LOG_INFO, "trace: %s", line);
    if (path != NULL && *path != '\0') {
        /* Opened per line: the trace survives a power cut or a kill in the middle of an
         * install, which is when it is wanted most. */
        FILE *f = fopen(path, "a");
        if (f != NULL) {
            fprintf(f, "%s\n", line);
            fclose(f);
        }
    }
}

/* The target set; before the automatic choice (SETIDX -1) kiv holds 255 there. */
static int target_set(const struct kiv_install_ctx *ctx) {
    return ctx->setidx <= 2 ? (int)ctx->setidx : -1;
}

/* The image location as given on the command line ("install ZUNF SETIDX"). */
static const char *image_path(const struct kiv_install_ctx *ctx) {
    return ctx->opts != NULL && ctx->opts->nargs >= 2 ? ctx->opts->args[1] : "?";
}

int kiv_install_hook_hcfg_fail(struct kiv_install_ctx *ctx, struct hostconfig *hc,
                               int rebuild_result) {
    (void)hc;
    trace("kiv_install_hook_hcfg_fail set=%d rebuild=%d", target_set(ctx), rebuild_result);
    return 0;
}

int kiv_install_hook_data_rcvd(struct kiv_install_ctx *ctx) {
    trace("kiv_install_hook_data_rcvd set=%d received=%ld size=%ld", target_set(ctx),
          (long)ctx->received, (long)ctx->zunf_size);
    return 0;
}

int kiv_install_hook_pre_metainstall(struct kiv_install_ctx *ctx, struct hostconfig *hc) {
    const struct zunf_release_header *r = ctx->rhdr;
    (void)hc;
    if (r == NULL) {
        trace("kiv_install_hook_pre_metainstall set=%d image=%s size=%ld release=none",
              target_set(ctx), image_path(ctx), (long)ctx->zunf_size);
        return 0;
    }
    trace("kiv_install_hook_pre_metainstall set=%d image=%s size=%ld release=%u.%u-%u id=%.*s",
          target_set(ctx), image_path(ctx), (long)ctx->zunf_size, r->release_version_major,
          r->release_version_minor, kiv_le16(r->release_build_number),
          (int)sizeof r->release_build_id, r->release_build_id);
    return 0;
}

/* The plan for each release metadata line: "POOL:write", "POOL:keep", ... */
int kiv_install_hook_pre_install(struct kiv_install_ctx *ctx, struct hostconfig *hc) {
    static const char *const actions[] = {"none", "write", "keep", "late"};
    char plan[KIV_PLUGIN_KIVM_ELEMS * 32] = "";
    size_t used = 0;
    int32_t i;
    (void)hc;
    for (i = 0; i < ctx->kivm_count && i < KIV_PLUGIN_KIVM_ELEMS; ++i) {
        const struct kivl_kivm_elem *e = &ctx->kivm[i];
        const int32_t a = e->action;
        int n;
        if (!e->used) continue;
        n = snprintf(plan + used, sizeof plan - used, "%s%.*s:%s", used > 0 ? "," : "",
                     (int)sizeof e->poolname, e->poolname, a >= 0 && a <= 3 ? actions[a] : "?");
        if (n < 0 || (size_t)n >= sizeof plan - used) break;
        used += (size_t)n;
    }
    trace("kiv_install_hook_pre_install set=%d active=%u plan=%s", target_set(ctx),
          (unsigned)ctx->kdata->rec.actset, plan);
    return 0;
}

int kiv_install_hook_post_write_out(struct kiv_install_ctx *ctx, struct hostconfig *hc) {
    (void)hc;
    trace("kiv_install_hook_post_write_out set=%d active=%u", target_set(ctx),
          (unsigned)ctx->kdata->rec.actset);
    return 0;
}

/* Its value becomes the install's result. */
int kiv_install_hook_post_activate(struct kiv_install_ctx *ctx, struct hostconfig *hc) {
    (void)hc;
    trace("kiv_install_hook_post_activate set=%d active=%u test=%d dryrun=%d", target_set(ctx),
          (unsigned)ctx->kdata->rec.actset, ctx->opts->test, ctx->opts->dryrun);
    return 0;
}

int kiv_install_hook_on_failure(struct kiv_install_ctx *ctx, struct hostconfig *hc, int result) {
    (void)hc;
    trace("kiv_install_hook_on_failure set=%d result=%d", target_set(ctx), result);
    return 0;
}

int kiv_activate_hook_post(struct kivl_data *data, struct hostconfig *hc) {
    const unsigned set = data->rec.actset;
    trace("kiv_activate_hook_post active=%u name=%.*s device=%s hostconfig_parts=%ld", set,
          (int)sizeof data->rec.sets[0].name, set <= 2 ? data->rec.sets[set].name : "?",
          data->device != NULL ? data->device : "?", (long)hc->count);
    return 0;
}
