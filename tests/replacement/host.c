/* A host that adds one file and finds it again, with whatever base services the dynamic linker finds. argv[1]: a file.
 */
#include "interface/tarncache.h"

#include <stdio.h>
#include <string.h>

int main(int argc, char **argv) {
    _SCAN_FILE_RESULT result;
    char md5[TARN_MD5_TEXT_SIZE];
    uint32_t code;
    if (argc != 2 || LocalCacheInit() != TARN_OK) {
        return 2;
    }
    memset(&result, 0, sizeof result);
    result.lEngineCode = 48;
    (void)strcpy(result.szVirusDesc, "Replaced.Test");
    code = LocalCacheAdd(argv[1], "0123456789abcdef0123456789abcdef", &result);
    if (code != TARN_OK || LocalCacheUnInit() != TARN_OK || LocalCacheInitEx() != TARN_OK) {
        return 3;
    }
    code = LocalCacheLookup(argv[1], md5, &result);
    (void)printf("%08x %s %s\n", (unsigned)code, md5, result.szVirusDesc);
    return LocalCacheUnInit() == TARN_OK ? 0 : 4;
}
