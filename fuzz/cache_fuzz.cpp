// Exported calls in any order with records of any bytes; with TARN_FUZZ_CHANGES on a damaged database. Nothing is read
// or written where it should not be, and each answer is a verdict that was added for the file.
#include "interface/tarncache.h"
#include "tests/support/install.h"

#include <cstdlib>
#include <cstring>
#include <fuzzer/FuzzedDataProvider.h>
#include <set>
#include <vector>

namespace {

const CTempInstall &Install() {
    static const CTempInstall s_install("protect=1\n");
    return s_install;
}

std::set<std::string> g_setAdded; // what answers may tell

std::string Text(const std::string &strPath, const struct stat &status, const _SCAN_FILE_RESULT &verdict) {
    const uint32_t ulFlags = verdict.ulFlags & ~(0x10U << TARN_RESULT_STATE_SHIFT); // the cache keeps four of its bits
    return strPath + ' ' + std::to_string(status.st_size) + ' ' + std::to_string(ulFlags) + ' ' +
           std::to_string(static_cast<int16_t>(verdict.lEngineCode)) + ' ' +
           std::string(verdict.szVirusDesc, strnlen(verdict.szVirusDesc, TARN_VIRUS_DESC_SIZE - 1));
}

void Call(FuzzedDataProvider &input) {
    const auto text = [&](size_t nMost) { return std::string(input.ConsumeRandomLengthString(nMost).c_str()); };
    const std::string strPath = input.ConsumeBool() ? Install().Path(text(2)) : text(5000);
    const std::string strMD5 = text(40);
    struct stat status = StatusOf(Install().Path("lib"));
    status.st_size = input.ConsumeIntegral<int8_t>();
    _SCAN_FILE_RESULT verdict = {};
    (void)input.ConsumeData(&verdict, sizeof verdict);
    char szMD5[TARN_MD5_TEXT_SIZE] = {};
    uint64_t nCount = 0;
    uint32_t ulWord = 0;
    // A record of the size that it names, so that the sanitizer sees what lies behind it.
    std::vector<uint8_t> vecRecord(input.ConsumeIntegralInRange<uint32_t>(4, 400));
    (void)input.ConsumeData(vecRecord.data(), vecRecord.size());
    ulWord = static_cast<uint32_t>(vecRecord.size());
    std::memcpy(vecRecord.data(), &ulWord, sizeof ulWord);
    switch (input.ConsumeIntegralInRange(0, 9)) {
    case 0:
        (void)LocalCacheGetInfo(reinterpret_cast<_LOCAL_CACHE_INFO *>(vecRecord.data()));
        break;
    case 1:
        (void)LocalCacheExplain(strPath.c_str(), reinterpret_cast<_LOCAL_CACHE_EXPLANATION *>(vecRecord.data()));
        break;
    case 2:
        (void)LocalCacheScanFinish(reinterpret_cast<_LOCAL_CACHE_SCAN *>(vecRecord.data()), strPath.c_str(),
                                   strMD5.c_str(), &verdict, &ulWord);
        break;
    case 3:
        (void)LocalCacheDeleteByPath(strPath.c_str());
        (void)LocalCacheDeleteByEngine(verdict.lEngineCode);
        (void)LocalCacheDeleteByFileHash(strMD5.c_str());
        break;
    case 4:
        (void)LocalCacheCountByFileHash(strMD5.c_str(), &nCount);
        (void)LocalCachePeek(strPath.c_str(), szMD5, &verdict, &ulWord);
        (void)LocalCacheEnumerate([](const _LOCAL_CACHE_RECORD *, void *) { return 0; }, nullptr);
        (void)LocalCacheCheck(nullptr, nullptr);
        break;
    case 5:
        (void)LocalCacheUnInit();
        (void)(verdict.ulFlags == 0 ? LocalCacheInit() : LocalCacheInitReader());
        break;
    case 6:
        (void)LocalCacheFlush(10000, &nCount);
        break;
    case 7:
        if (LocalCacheLookupStat(strPath.c_str(), &status, szMD5, &verdict) == TARN_OK &&
            (g_setAdded.count(Text(strPath, status, verdict)) == 0 || strnlen(szMD5, sizeof szMD5) != 32)) {
            std::abort();
        }
        break;
    default:
        g_setAdded.insert(Text(strPath, status, verdict));
        (void)LocalCacheAddStat(strPath.c_str(), &status, strMD5.c_str(), &verdict);
    }
}

std::string MakeDatabase() {
    const struct stat status = StatusOf(Install().Path("lib"));
    (void)LocalCacheInit();
    for (char ch = 'a'; ch <= 'z'; ++ch) {
        const _SCAN_FILE_RESULT verdict = {{}, ch, {}, 1, {}, {"Virus"}};
        g_setAdded.insert(Text(Install().Path({ch}), status, verdict));
        (void)LocalCacheAddStat(Install().Path({ch}).c_str(), &status, "", &verdict);
    }
    (void)LocalCacheUnInit();
    return ReadWholeFile(Install().Database());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nSize) {
    FuzzedDataProvider input(pData, nSize);
    static const std::string s_strGood = MakeDatabase();
    static const std::set<std::string> s_setGood = g_setAdded;
    std::string strBytes = s_strGood;
    for (int iChange = 0; iChange < TARN_FUZZ_CHANGES; ++iChange) {
        const std::string strChange = input.ConsumeRandomLengthString(64);
        const auto nAt = input.ConsumeIntegralInRange<size_t>(0, strBytes.size() - 1);
        (void)strBytes.replace(nAt, strChange.size(), strChange);
    }
    Install().WriteFile("engine/cache/morcache.db", strBytes);
    g_setAdded = s_setGood;
    (void)LocalCacheInit();
    while (input.remaining_bytes() > 0) {
        Call(input);
    }
    while (LocalCacheUnInit() == TARN_OK) {
    }
    return 0;
}
