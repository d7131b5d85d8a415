/* tarncore.h - the product's core services: logging, the business-value store, digests and ciphers.
 *
 * Every function may be called from any thread. None of them throws, and none of them changes process-wide state.
 */
#ifndef TARN_PLATFORM_TARNCORE_H
#define TARN_PLATFORM_TARNCORE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Writes one log line, printf-style. level: 1 severe, 2 error, 3 information, 4 debug; lines above the configured level
 * cost one comparison. Bytes that could start a new line or steer a terminal (control bytes, invalid UTF-8, direction
 * marks) are written as escapes such as \n or \x1b, a backslash as \\; a message is cut at about 5,000 bytes.
 * The line goes to the configured file (created 0600, rotated at 10 MiB, two older ones kept; no link, one name, of
 * root or the effective user), or to standard error when there is none or it cannot be written. A full pipe, socket or
 * terminal is not waited for: lines are dropped, and how many is said later. But at level debug, one place writes at
 * most five lines a minute and no text twice in it, and says later how many were left out. A failing sink is ignored.
 * errno is left as it was; no signal is raised. */
void error_output(int level, const char *source, int line, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

/* Non-zero exactly while debug lines (level 4) are wanted. After the first call this is one atomic load.
 *
 * Level and file are read once, at the first use: from TARN_LOG_LEVEL (off, severe, error, info, debug) and
 * TARN_LOG_FILE, else from the keys level and file in section "log" of "@/../config/tarncfg.ini", else error level and
 * standard error. Programs that run with raised privileges (setuid and the like) ignore the environment. */
int is_open_debug_log_avscan(void);

/* Copies a stored value (hexadecimal text in "@/../config/business.ini") into out; a longer value is cut to outLen
 * bytes. Returns the bytes copied, or -1 with a logged error and out untouched: no such value, malformed hexadecimal,
 * or a file that is a link, has several names, belongs to somebody else than root and the effective user, or that group
 * or others may access. The error never shows the value. reserved0 and reserved1
 * are 0. */
int get_business_value(const char *section, const char *name, int reserved0, int reserved1, unsigned char *out,
                       int outLen);

/* CRC-32 of length bytes, continuing from seed; seed 0 starts afresh. No bytes, or null data, leave seed as it is. */
uint32_t Crc32(uint32_t seed, const unsigned char *data, uint64_t length);

/* 32 hexadecimal digits -> 16 bytes. Returns 1, or 0 and 16 zero bytes for any other text. */
int MD5_StrResultConvert(const char *hex32, void *out16);

/* 16 bytes -> 32 lower-case digits and a NUL (33 bytes). Returns 1, or 0 for a null argument. */
int MD5_BinResultConvert(const void *bin16, char *hex33);

/* RC4 cipher state. Copyable: assigning it copies the position in the key stream. */
typedef struct {
    uint32_t x, y;
    uint32_t data[256];
} RC4_STATE;

/* Runs the key schedule over keyLength bytes; those after the 256th have no effect in RC4. A null or empty key leaves
 * the state zeroed, and enciphering with such a state changes nothing. */
void RC4_set_key(RC4_STATE *state, int keyLength, const unsigned char *key);

/* Enciphers (or deciphers) length bytes; in == out is allowed. */
void RC4_crypt(RC4_STATE *state, uint64_t length, const unsigned char *in, unsigned char *out);

#ifdef __cplusplus
}
#endif

#endif
