/* The public header compiles as C11 and is enough for a whole life of the cache. */
#include "tarncache.h"

int main(int argc, char **argv) {
    char szMD5[TARN_MD5_TEXT_SIZE] = "";
    _SCAN_FILE_RESULT result = {{0}, 0, {0}, 0, {0}, ""};
    if (argc < 1 || sizeof result != 169 || LocalCacheInit() != TARN_OK) {
        return 1;
    }
    if (LocalCacheLookup(argv[0], szMD5, &result) != TARN_NOT_CACHED) {
        return 2;
    }
    return LocalCacheUnInit() == TARN_OK ? 0 : 3;
}
