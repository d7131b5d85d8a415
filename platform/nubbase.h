/* nubbase.h - the product's base services: bounded formatting, installation paths, ini files.
 *
 * The functions hold no state of their own; an ini handle belongs to one thread at a time.
 */
#ifndef TARN_PLATFORM_NUBBASE_H
#define TARN_PLATFORM_NUBBASE_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* snprintf that always terminates buf (size > 0). Returns the length the whole text has, or -1. */
int str_snprintf(char *buf, size_t size, const char *format, ...) __attribute__((format(printf, 3, 4)));

/* Expands a leading "@" to the installation directory and normalises the result by its text alone: with /opt/t/lib
 * as "@", "@/../config/x" is /opt/t/config/x; a trailing "/" is kept. Other text is copied as it is. "@" is
 * TARN_INSTALL_DIR when set (ignored with raised privileges; a relative one counts from the working folder in which
 * this library was loaded), else the folder that this library was loaded from. in may be out. Returns 1, or 0 when out
 * cannot hold the whole path, or in is null (out is then the empty string). */
int dirutils_path_transform(const char *in, char *out, int outSize);

/* Loads an ini file of at most 4 MiB; only a regular file with one name, of root or of the effective user, which not
 * everybody may write, and never waiting for one that is none. A symbolic link is followed when it, the file and all
 * folders on the way to it are root's or the effective user's. Keys and sections match without regard to ASCII case.
 * Returns a handle to be freed with ini_file_free, or NULL with errno set; what is refused is logged too. */
void *ini_file_load(const char *path);

/* The value's text, the last one when the key is repeated; NULL when absent. Owned by the handle: valid until the
 * handle is freed or the key is set again. */
const char *ini_file_get(void *ini, const char *section, const char *key);

/* Sets or adds a key in memory; a repeated key becomes a single one. Text that would not survive a save (line breaks,
 * blanks around it, a key that looks like a comment or section) is refused. Returns 0, or -1 with errno set and the
 * handle unchanged. */
int ini_file_set(void *ini, const char *section, const char *key, const char *value);

/* Replaces the file atomically (new file in the same folder, flushed to disk, renamed), keeping mode and owner; a
 * symbolic link is followed as by ini_file_load and stays. What a save that was killed has left is removed. Comments,
 * order, other keys and sections are kept. A new file has mode 0600. flags is reserved (0). Returns 0, or -1 with errno
 * set and the old file in place (the new one when only flushing the folder failed). */
int ini_file_save(void *ini, const char *path, int flags);

/* Frees a handle; NULL is allowed. */
void ini_file_free(void *ini);

#ifdef __cplusplus
}
#endif

#endif
