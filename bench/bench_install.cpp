#include "bench/bench_install.h"

#include "interface/tarncache.h"
#include "platform/nubbase.h"
#include "platform/tarncore.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <mutex>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr char kVirusName[] = "Bench.Test.Virus"; // description 0, of every 50th row
constexpr int kInfectedStep = 50;
constexpr uint32_t kFlags = 0x2005; // file type 5, result state 1
constexpr size_t kFilesPerFolder = 100;

fs::path g_pathFolder; // the living installation's folder, removed also when a measurement cannot go on

// Spreads consecutive numbers over 64 bits.
uint64_t Mix(uint64_t nValue) {
    nValue += 0x9E3779B97F4A7C15U;
    nValue = (nValue ^ nValue >> 30U) * 0xBF58476D1CE4E5B9U;
    nValue = (nValue ^ nValue >> 27U) * 0x94D049BB133111EBU;
    return nValue ^ nValue >> 31U;
}

// The row of a file that exists nowhere.
_CacheRecord SyntheticRow(int64_t liRow) {
    const uint64_t nRow = static_cast<uint64_t>(liRow);
    const CacheMD5 md5 = RowDigest(liRow);
    _CacheRecord record = {};
    record.liFilePathHash = static_cast<int64_t>(Mix(nRow * 2) >> 16U); // bits 48-63 of a path hash are zero
    record.lFileAttrHash = static_cast<int32_t>(Mix(nRow * 2 + 1));
    record.liHighMD5 = md5.liHighMD5;
    record.liLowMD5 = md5.liLowMD5;
    const auto sEngine = static_cast<int16_t>(kFirstEngine + liRow % kEngines);
    record.liTreatVirus = PackVerdict(kFlags, sEngine, liRow % kInfectedStep == 0 ? 0 : -1);
    record.lQueryCounts = static_cast<int32_t>(liRow % 7);
    record.lTimeStamp = time(nullptr) - static_cast<int64_t>(Mix(nRow) % 7776000); // within the last 90 days
    record.lResultState = 1;
    (void)str_snprintf(record.szFilePathIndex, sizeof record.szFilePathIndex, "%s", "/usl");
    return record;
}

_CacheRecord FileRow(int64_t liRow, const std::string &strFile) {
    _CacheRecord record = SyntheticRow(liRow);
    uint32_t aulPathHash[2] = {};
    uint32_t ulAttrHash = 0;
    std::memset(record.szFilePathIndex, 0, sizeof record.szFilePathIndex);
    Require(CalcFilePathCrc32(strFile.c_str(), aulPathHash) == 1 &&
                CalcFileAttrCrc32(strFile.c_str(), &ulAttrHash) == 1 &&
                CalcFilePathIndex(strFile.c_str(), record.szFilePathIndex, kPathIndexLength) == 1,
            "hash a file");
    std::memcpy(&record.liFilePathHash, aulPathHash, sizeof record.liFilePathHash);
    record.lFileAttrHash = static_cast<int32_t>(ulAttrHash);
    return record;
}

void InsertRow(sqlite3_stmt *pStmt, const _CacheRecord &record) {
    sqlite3_bind_int64(pStmt, 1, record.liFilePathHash);
    sqlite3_bind_int(pStmt, 2, record.lFileAttrHash);
    sqlite3_bind_int64(pStmt, 3, record.liTreatVirus);
    sqlite3_bind_int64(pStmt, 4, record.liHighMD5);
    sqlite3_bind_int64(pStmt, 5, record.liLowMD5);
    sqlite3_bind_int(pStmt, 6, record.lQueryCounts);
    sqlite3_bind_int64(pStmt, 7, record.lTimeStamp);
    sqlite3_bind_int(pStmt, 8, record.lResultState);
    const int nIndexBytes = static_cast<int>(strnlen(record.szFilePathIndex, sizeof record.szFilePathIndex));
    sqlite3_bind_blob(pStmt, 9, record.szFilePathIndex, nIndexBytes, SQLITE_STATIC);
    Require(sqlite3_step(pStmt) == SQLITE_DONE, "insert a row");
    sqlite3_reset(pStmt);
}

void FillTables(const std::string &strDatabase, int64_t liRows, const std::vector<std::string> &vecFiles) {
    constexpr char kInsert[] = "insert into CT(FPH,FAH,FTV,FHMD,FLMD,QC,TS,RS,FFI) values(?,?,?,?,?,?,?,?,?);";
    const CSecondConnection db(strDatabase);
    Require(db.Run("pragma synchronous=off; pragma journal_mode=off; pragma cache_size=-400000; begin;"), "begin");
    Require(db.Run(std::string("insert into VDT values(0, '") + kVirusName + "');"), "insert a description");
    sqlite3_stmt *pInsert = nullptr;
    Require(sqlite3_prepare_v2(db.m_pDB, kInsert, -1, &pInsert, nullptr) == SQLITE_OK, kInsert);
    const int64_t liFiles = static_cast<int64_t>(vecFiles.size());
    Require(liFiles <= liRows, "fewer files than rows");
    int64_t liNextFile = 0;
    for (int64_t liRow = 0; liRow < liRows; ++liRow) {
        const bool bIsFileRow = liNextFile < liFiles && liRow * liFiles / liRows >= liNextFile;
        InsertRow(pInsert,
                  bIsFileRow ? FileRow(liRow, vecFiles[static_cast<size_t>(liNextFile)]) : SyntheticRow(liRow));
        liNextFile += bIsFileRow ? 1 : 0;
    }
    sqlite3_finalize(pInsert);
    Require(db.Run("commit;"), "commit");
    Require(liNextFile == liFiles, "a row for every file");
}

} // namespace

CBenchInstall::CBenchInstall() : CTempInstall("cachesize=8000\nexpirepercent=30\nexpiretime=4102444800\n") {
    g_pathFolder = Path("");
}

std::vector<std::string> CBenchInstall::MakeFiles(size_t nFiles, size_t nBytes) const {
    std::vector<std::string> vecFiles;
    for (size_t nFile = 0; nFile < nFiles; ++nFile) {
        char szName[64] = {};
        (void)str_snprintf(szName, sizeof szName, "files/d%05zu", nFile / kFilesPerFolder);
        if (nFile % kFilesPerFolder == 0) {
            fs::create_directories(Path(szName));
        }
        (void)str_snprintf(szName, sizeof szName, "files/d%05zu/f%08zu.bin", nFile / kFilesPerFolder, nFile);
        std::string strContent = std::to_string(nFile);
        strContent.resize(nBytes, 'x');
        vecFiles.push_back(WriteFile(szName, strContent));
    }
    return vecFiles;
}

void CBenchInstall::FillDatabase(int64_t liRows, const std::vector<std::string> &vecFiles) const {
    Require(LocalCacheInitEx() == TARN_OK && LocalCacheUnInit() == TARN_OK, "let the library make its tables");
    FillTables(Database(), liRows, vecFiles);
}

void CBenchInstall::FillDatabaseInChild(int64_t liRows, const std::vector<std::string> &vecFiles) const {
    const pid_t child = fork();
    Require(child >= 0, "fork");
    if (child == 0) {
        FillDatabase(liRows, vecFiles);
        _exit(EXIT_SUCCESS);
    }
    int iStatus = 0;
    Require(waitpid(child, &iStatus, 0) == child && iStatus == 0, "fill the database");
}

int CBenchInstall::FinishedStarts() const {
    const std::unique_ptr<void, decltype(&ini_file_free)> pIni(ini_file_load(Config().c_str()), &ini_file_free);
    const char *pszValue = pIni != nullptr ? ini_file_get(pIni.get(), "cacheeng", "dbquerycounts") : nullptr;
    return pszValue != nullptr ? std::atoi(pszValue) : 0;
}

void CBenchInstall::WaitForStart(int nBefore) const {
    while (FinishedStarts() <= nBefore) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

CacheMD5 RowDigest(int64_t liRow) {
    const uint64_t nRow = static_cast<uint64_t>(liRow);
    return {static_cast<int64_t>(Mix(~nRow)), static_cast<int64_t>(Mix(Mix(nRow)))};
}

std::string DigestText(const CacheMD5 &md5) {
    char szText[TARN_MD5_TEXT_SIZE] = {};
    (void)MD5_BinResultConvert(&md5, szText);
    return szText;
}

int64_t QueryNumber(const std::string &strDatabase, const std::string &strSQL) {
    return CSecondConnection(strDatabase).Number(strSQL);
}

void RunSQL(const std::string &strDatabase, const std::string &strSQL) {
    Require(CSecondConnection(strDatabase).Run(strSQL), strSQL.c_str());
}

void Require(bool bCondition, const char *pszWhat) {
    if (!bCondition) {
        static std::mutex mutex;
        const std::lock_guard guard(mutex); // kept to the end: the first thread's reason is the one to read
        (void)std::fflush(stdout);
        (void)std::fprintf(stderr, "cannot go on: %s\n", pszWhat);
        std::error_code error;
        fs::remove_all(g_pathFolder, error);
        std::_Exit(EXIT_FAILURE);
    }
}

int64_t CountArgument(int argc, char **argv, int64_t liDefault) {
    const int64_t liCount = argc > 1 ? std::strtoll(argv[argc - 1], nullptr, 10) : liDefault;
    Require(liCount >= 1000, "the count is a number from 1000 on");
    return liCount;
}

bool ReportLimit(const char *pszWhat, double value, double limit, const char *pszUnit) {
    const bool bKept = value <= limit;
    (void)std::printf("%-62s %10.2f %-4s limit %g: %s\n", pszWhat, value, pszUnit, limit, bKept ? "kept" : "MISSED");
    return bKept;
}

double SecondsSince(BenchClock::time_point start) {
    return std::chrono::duration<double>(BenchClock::now() - start).count();
}

double TimeSeconds(const std::function<void()> &action) {
    const BenchClock::time_point start = BenchClock::now();
    action();
    return SecondsSince(start);
}
