/* kiv_signed_release.c: kiv installs only release images signed by the integrator.
 *
 * The release image is signed on the build host with a detached signature:
 *
 *     openssl dgst -sha256 -sign key.pem -out release.zunf.sig release.zunf
 *
 * and the device holds the public key. Before kiv plans anything, and so before any
 * partition is erased, kiv_install_hook_pre_metainstall checks the signature over the
 * image bytes kiv has read into memory: the bytes that will be written are the bytes that
 * were checked, even if the file changes meanwhile.
 *
 *   KIV_RELEASE_PUBKEY     the public key, PEM (default /etc/kiv/release-pubkey.pem)
 *   KIV_RELEASE_SIGNATURE  the signature (default: the image path followed by ".sig")
 *
 * A product build fixes the key instead, so that no caller's environment chooses it:
 * -DRELEASE_PUBKEY='"/path/key.pem"' -DRELEASE_PUBKEY_FIXED.
 *
 * A refused image ends the install with one of the codes below as kiv's exit status,
 * with a message on standard error and in the system log.
 */
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include "kiv_plugin.h"

/* kiv's own exit codes stay below 15 or above 63; these say why an image was refused. */
enum {
    SIGNATURE_UNREADABLE = 20, /* no signature file, or not readable */
    SIGNATURE_MISMATCH = 21,   /* the image is not the one that was signed with the key */
    KEY_UNREADABLE = 22,       /* the public key cannot be loaded */
};

#ifndef RELEASE_PUBKEY
#define RELEASE_PUBKEY "/etc/kiv/release-pubkey.pem"
#endif
/* RSA-8192 signatures are 1 KiB; anything much bigger is not a signature. */
#define MAX_SIGNATURE 2048

#if defined(__GNUC__)
#define REFUSE_PRINTF __attribute__((format(printf, 1, 2)))
#else
#define REFUSE_PRINTF
#endif

static void refuse(const char *format, ...) REFUSE_PRINTF;

/* Standard error for whoever runs the install, the system log for the device's history.
 * kiv has opened the log as "KIV" already. */
static void refuse(const char *format, ...) {
    char text[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    fprintf(stderr, "signed-release: %s\n", text);
    syslog(LOG_ERR, "signed-release: %s", text);
}

/* The reason of OpenSSL's latest error, for messages. */
static const char *openssl_reason(void) {
    static char reason[256];
    const unsigned long e = ERR_get_error();
    if (e == 0) return "not a PEM public key";
    ERR_error_string_n(e, reason, sizeof reason);
    return reason;
}

/* Reads at most MAX_SIGNATURE bytes of path; the count, or -1 with errno set. */
static long read_signature(const char *path, unsigned char *buf) {
    FILE *f = fopen(path, "rb");
    size_t n;
    int too_big;
    if (f == NULL) return -1;
    n = fread(buf, 1, MAX_SIGNATURE, f);
    too_big = n == MAX_SIGNATURE && fgetc(f) != EOF;
    if (ferror(f) || too_big || n == 0) {
        fclose(f);
        errno = too_big || n == 0 ? EINVAL : EIO;
        return -1;
    }
    fclose(f);
    return (long)n;
}

/* The PEM public key in path; NULL with *why saying what went wrong. */
static EVP_PKEY *read_pubkey(const char *path, const char **why) {
    EVP_PKEY *key;
    FILE *f = fopen(path, "r");
    if (f == NULL) {
        *why = strerror(errno);
        return NULL;
    }
    key = PEM_read_PUBKEY(f, NULL, NULL, NULL);
    fclose(f);
    if (key == NULL) *why = openssl_reason();
    return key;
}

/* 1 when sig is key's signature of the SHA-256 digest of data. */
static int signature_matches(EVP_PKEY *key, const unsigned char *sig, size_t sig_len,
                             const unsigned char *data, size_t size) {
    EVP_MD_CTX *md = EVP_MD_CTX_new();
    const int ok = md != NULL && EVP_DigestVerifyInit(md, NULL, EVP_sha256(), NULL, key) == 1 &&
                   EVP_DigestVerifyUpdate(md, data, size) == 1 &&
                   EVP_DigestVerifyFinal(md, sig, sig_len) == 1;
    EVP_MD_CTX_free(md);
    ERR_clear_error();
    return ok;
}

int kiv_install_hook_pre_metainstall(struct kiv_install_ctx *ctx, struct hostconfig *hc) {
    const char *image = ctx->opts->nargs >= 2 ? ctx->opts->args[1] : "";
#ifdef RELEASE_PUBKEY_FIXED
    const char *keypath = RELEASE_PUBKEY;
#else
    const char *keypath = getenv("KIV_RELEASE_PUBKEY");
#endif
    const char *sigpath = getenv("KIV_RELEASE_SIGNATURE");
    char default_sig[4096];
    unsigned char sig[MAX_SIGNATURE];
    long sig_len;
    const char *why = "";
    EVP_PKEY *key;
    int ok;
    (void)hc;

    if (keypath == NULL || *keypath == '\0') keypath = RELEASE_PUBKEY;
    if (sigpath == NULL || *sigpath == '\0') {
        if ((size_t)snprintf(default_sig, sizeof default_sig, "%s.sig", image) >=
            sizeof default_sig) {
            refuse("refusing %s: path too long for its signature", image);
            return SIGNATURE_UNREADABLE;
        }
        sigpath = default_sig;
    }

    sig_len = read_signature(sigpath, sig);
    if (sig_len < 0) {
        refuse("refusing %s: cannot read signature %s: %s", image, sigpath, strerror(errno));
        return SIGNATURE_UNREADABLE;
    }
    key = read_pubkey(keypath, &why);
    if (key == NULL) {
        refuse("refusing %s: cannot load public key %s: %s", image, keypath, why);
        return KEY_UNREADABLE;
    }
    ok = ctx->zunf_buf != NULL && ctx->zunf_size > 0 &&
         signature_matches(key, sig, (size_t)sig_len, ctx->zunf_buf, (size_t)ctx->zunf_size);
    EVP_PKEY_free(key);
    if (!ok) {
        refuse("refusing %s: signature %s does not match it (public key %s)", image, sigpath,
               keypath);
        return SIGNATURE_MISMATCH;
    }
    syslog(LOG_NOTICE, "signed-release: %s: signature %s verified with %s", image, sigpath,
           keypath);
    return 0;
}
