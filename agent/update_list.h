// update_list.h - the update-cache file by way of the base services: key, cipher and binary digests.
#ifndef TARN_AGENT_UPDATE_LIST_H
#define TARN_AGENT_UPDATE_LIST_H

#include "formats/update_list.h"
#include "util/cache_record.h"

#include <cstddef>

// Deciphers (or enciphers) the buffer in place: RC4 in blocks of 256 bytes, each from the freshly keyed state. The key
// comes from the business-value store; a missing one counts as zero bytes. A null buffer is logged.
void ParseMemToChar(char *buffer, size_t size);

// A whole line of 32 hexadecimal digits becomes a digest; false for any other text.
[[nodiscard]] bool ParseDigest(const char (&szDigest)[kDigestTextSize], CacheMD5 &md5);

#endif
