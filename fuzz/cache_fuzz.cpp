// Exported calls in any order with records of any bytes, and as another target on a damaged database as well. Nothing
// is read or written where it should not be, and each answer is a verdict that was added for this file.
#include "interface/tarncache.h"
#include "tests/support/install.h"

#include <cstdlib>
#include <cstring>
#include <fuzzer/FuzzedDataProvider.h>
#include <set>
#include <vector>

namespace {

const CTempInstall &Install() {
    static const CTempInstall s_install("protect=1\ndiskthreshold=0\n");
    return s_install;
}

// What an answer tells of a file. The paths are few, and so are the answers that are right.
std::string Text(const std::string &strPath, const struct stat &status, const _SCAN_FILE_RESULT &verdict) {
    const uint32_t ulFlags = verdict.ulFlags & ~(0x10U << TARN_RESULT_STATE_SHIFT); // the cache keeps four of its bits
    return strPath + ' ' + std::to_string(status.st_size) + ' ' + std::to_string(ulFlags) + ' ' +
           std::to_string(static_cast<int16_t>(verdict.lEngineCode)) + ' ' +
           std::string(verdict.szVirusDesc, strnlen(verdict.szVirusDesc, TARN_VIRUS_DESC_SIZE - 1));
}

std::set<std::string> g_setAdded;

// One call. Records have the size that they name, so that the sanitizer sees what lies behind them.
void Call(FuzzedDataProvider &input) {
    const auto text = [&](size_t nMost) { return std::string(input.ConsumeRandomLengthString(nMost).c_str()); };
    const auto record = [&](auto &buffer, size_t nLeast) {
        buffer = input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange<size_t>(nLeast, 400));
        buffer.resize(std::max(buffer.size(), nLeast));
        const auto ulSize = static_cast<uint32_t>(buffer.size());
        std::memcpy(buffer.data(), &ulSize, sizeof ulSize);
        return buffer.data();
    };
    std::vector<uint8_t> vecBytes;
    const std::string strPath = input.ConsumeBool() ? Install().Path(text(2)) : text(5000);
    const std::string strMD5 = text(40);
    struct stat status = StatusOf(Install().Path("file"));
    status.st_size = input.ConsumeIntegral<int8_t>();
    _SCAN_FILE_RESULT verdict = {};
    (void)input.ConsumeData(&verdict, sizeof verdict);
    char szMD5[TARN_MD5_TEXT_SIZE] = {};
    uint64_t nCount = 0;
    uint32_t ulWord = 0;
    switch (input.ConsumeIntegralInRange(0, 9)) {
    case 0:
    case 1:
        g_setAdded.insert(Text(strPath, status, verdict));
        (void)LocalCacheAddStat(strPath.c_str(), &status, strMD5.c_str(), &verdict);
        break;
    case 2:
    case 3:
        if (LocalCacheLookupStat(strPath.c_str(), &status, szMD5, &verdict) == TARN_OK &&
            (g_setAdded.count(Text(strPath, status, verdict)) == 0 || strnlen(szMD5, sizeof szMD5) != 32)) {
            std::abort();
        }
        break;
    case 4:
        (void)LocalCacheGetInfo(reinterpret_cast<_LOCAL_CACHE_INFO *>(record(vecBytes, 4)));
        (void)LocalCacheExplain(strPath.c_str(), reinterpret_cast<_LOCAL_CACHE_EXPLANATION *>(record(vecBytes, 4)));
        (void)LocalCachePeek(strPath.c_str(), szMD5, &verdict, &ulWord);
        break;
    case 5:
        (void)LocalCacheDeleteByPath(strPath.c_str());
        (void)LocalCacheDeleteByEngine(verdict.lEngineCode);
        (void)LocalCacheDeleteByFileHash(strMD5.c_str());
        break;
    case 6:
        (void)LocalCacheScanFinish(reinterpret_cast<_LOCAL_CACHE_SCAN *>(record(vecBytes, 4)), strPath.c_str(),
                                   strMD5.c_str(), &verdict, &ulWord);
        (void)LocalCacheScanBegin(input.ConsumeIntegralInRange(-1, 2),
                                  reinterpret_cast<_LOCAL_CACHE_SCAN *>(record(vecBytes, 4)));
        break;
    case 7:
        (void)LocalCacheCountByFileHash(strMD5.c_str(), &nCount);
        (void)LocalCacheEnumerate([](const _LOCAL_CACHE_RECORD *, void *) { return 0; }, nullptr);
        (void)LocalCacheCheck(nullptr, nullptr);
        break;
    case 8:
        (void)LocalCacheTrim();
        (void)LocalCacheUnInit();
        (void)(input.ConsumeBool() ? LocalCacheInit() : LocalCacheInitReader());
        break;
    default:
        (void)LocalCacheFlush(10000, &nCount);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nSize) {
    FuzzedDataProvider input(pData, nSize);
    static const std::string s_strGood = [] {
        const struct stat status = StatusOf(Install().WriteFile("file"));
        (void)LocalCacheInit();
        for (char ch = 'a'; ch <= 'z'; ++ch) {
            const _SCAN_FILE_RESULT verdict = {{}, ch, {}, 1, {}, {"Virus"}};
            const std::string strPath = Install().Path({ch});
            g_setAdded.insert(Text(strPath, status, verdict));
            (void)LocalCacheAddStat(strPath.c_str(), &status, "0123456789abcdef0123456789abcdef", &verdict);
        }
        (void)LocalCacheFlush(10000, nullptr);
        (void)LocalCacheUnInit();
        return ReadWholeFile(Install().Database());
    }();
#ifdef TARN_FUZZ_DATABASE
    std::string strBytes = s_strGood;
    for (int nChanges = input.ConsumeIntegralInRange(1, 8); nChanges > 0; --nChanges) {
        const auto nAt = input.ConsumeIntegralInRange<size_t>(0, strBytes.size() - 1);
        const std::string strChange = input.ConsumeRandomLengthString(64);
        (void)strBytes.replace(nAt, strChange.size(), strChange);
    }
    Install().WriteFile("engine/cache/morcache.db", strBytes);
#endif
    (void)LocalCacheInit();
    if (g_setAdded.size() > 10000) {
        g_setAdded.clear(); // of all runs so far
        (void)LocalCacheFlush(10000, nullptr);
        (void)LocalCacheClear();
    }
    while (input.remaining_bytes() > 0) {
        Call(input);
    }
    while (LocalCacheUnInit() == TARN_OK) {
    }
    return 0;
}
