/* A product's own libtarncore, as small as can be: log lines go to stderr, the other services have nothing to give.
 * Proves that libtarncache takes whatever library of this name the dynamic linker finds. */
#define _POSIX_C_SOURCE 200809L /* flockfile */
#include "platform/tarncore.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#define EXPORTED __attribute__((visibility("default")))

EXPORTED void error_output(int level, const char *source, int line, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    flockfile(stderr); /* other threads write too */
    (void)fprintf(stderr, "replaced %d %s:%d ", level, source, line);
    (void)vfprintf(stderr, format, arguments);
    (void)fputc('\n', stderr);
    funlockfile(stderr);
    va_end(arguments);
}

EXPORTED int is_open_debug_log_avscan(void) {
    return 1;
}

EXPORTED int get_business_value(const char *section, const char *name, int reserved0, int reserved1, unsigned char *out,
                                int outLen) {
    (void)section, (void)name, (void)reserved0, (void)reserved1, (void)out, (void)outLen;
    return -1;
}

EXPORTED uint32_t Crc32(uint32_t seed, const unsigned char *data, uint64_t length) {
    (void)data;
    return seed ^ (uint32_t)length;
}

EXPORTED int MD5_StrResultConvert(const char *hex32, void *out16) {
    (void)hex32;
    memset(out16, 0, 16);
    return 0;
}

EXPORTED int MD5_BinResultConvert(const void *bin16, char *hex33) {
    (void)bin16;
    memset(hex33, '0', 32);
    hex33[32] = '\0';
    return 1;
}

EXPORTED void RC4_set_key(RC4_STATE *state, int keyLength, const unsigned char *key) {
    (void)keyLength, (void)key;
    memset(state, 0, sizeof *state);
}

EXPORTED void RC4_crypt(RC4_STATE *state, uint64_t length, const unsigned char *in, unsigned char *out) {
    (void)state;
    memmove(out, in, length);
}
