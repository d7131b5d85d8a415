#include "agent/own_reading.h"

#include "support/checked_file.h"

#include <cerrno>
#include <cstring>

namespace {

constexpr uint32_t kReadsBetweenQuestions = 64; // pages: well below a millisecond, where the disk is not the slow part

struct _OwnFile : sqlite3_file {
    COwnReading *pReading;
};

} // namespace

int COwnReading::Open(const std::string &strPath, std::function<bool()> mustStop) {
    if (!m_file.IsOpen()) {
        m_file = CDescriptor(open(strPath.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    }
    // One that is refused stays open too: a second name of the database must not make us drop its locks.
    if (!CheckOpenFile(m_file.Get(), 0).IsGood()) {
        return SQLITE_CANTOPEN;
    }
    m_bFailed = false;
    m_mustStop = std::move(mustStop);
    return OpenConnection(strPath, SQLITE_OPEN_READONLY, &m_pDB);
}

void COwnReading::CloseConnection() {
    (void)sqlite3_close(m_pDB); // its statements are gone
    m_pDB = nullptr;
    Withdraw();
}

void COwnReading::Close() {
    CloseConnection();
    (void)m_file.Close(); // only read
}

int COwnReading::FileSize() const {
    return sizeof(_OwnFile);
}

int COwnReading::OpenFile(const char * /*pszPath*/, sqlite3_file *pFile, int iFlags, int *piOutFlags) {
    if ((iFlags & SQLITE_OPEN_MAIN_DB) == 0) {
        return SQLITE_CANTOPEN; // no journal, no temporary file
    }
    pFile->pMethods = &Methods();
    static_cast<_OwnFile *>(pFile)->pReading = this;
    if (piOutFlags != nullptr) {
        *piOutFlags = iFlags;
    }
    return SQLITE_OK;
}

int COwnReading::Read(sqlite3_file *pFile, void *pBuffer, int nBytes, sqlite3_int64 liOffset) {
    COwnReading &reading = *static_cast<_OwnFile *>(pFile)->pReading;
    if (reading.m_mustStop != nullptr && reading.m_ulReads++ % kReadsBetweenQuestions == 0 && reading.m_mustStop()) {
        reading.m_bFailed = true;
    }
    if (reading.m_bFailed) {
        return SQLITE_IOERR_READ;
    }
    auto *pchTo = static_cast<char *>(pBuffer);
    auto nLeft = static_cast<size_t>(nBytes);
    while (nLeft > 0) {
        const ssize_t nRead = pread(reading.m_file.Get(), pchTo, nLeft, liOffset);
        if (nRead == 0) {
            std::memset(pchTo, 0, nLeft); // behind the end, as SQLite wants it
            return SQLITE_IOERR_SHORT_READ;
        }
        if (nRead < 0 && errno != EINTR) {
            reading.m_bFailed = true;
            return SQLITE_IOERR_READ;
        }
        if (nRead > 0) {
            pchTo += nRead;
            liOffset += nRead;
            nLeft -= static_cast<size_t>(nRead);
        }
    }
    return SQLITE_OK;
}

int COwnReading::Measure(sqlite3_file *pFile, sqlite3_int64 *pliSize) {
    COwnReading &reading = *static_cast<_OwnFile *>(pFile)->pReading;
    struct stat status = {};
    if (fstat(reading.m_file.Get(), &status) != 0) {
        reading.m_bFailed = true;
        return SQLITE_IOERR_FSTAT;
    }
    *pliSize = status.st_size;
    return SQLITE_OK;
}

const sqlite3_io_methods &COwnReading::Methods() {
    static const sqlite3_io_methods methods = [] {
        sqlite3_io_methods own = {};
        own.iVersion = 1;
        own.xClose = [](sqlite3_file *) { return SQLITE_OK; };
        own.xRead = Read;
        own.xWrite = [](sqlite3_file *, const void *, int, sqlite3_int64) { return SQLITE_READONLY; };
        own.xTruncate = [](sqlite3_file *, sqlite3_int64) { return SQLITE_READONLY; };
        own.xSync = [](sqlite3_file *, int) { return SQLITE_OK; };
        own.xFileSize = Measure;
        own.xLock = [](sqlite3_file *, int) { return SQLITE_OK; };
        own.xUnlock = [](sqlite3_file *, int) { return SQLITE_OK; };
        own.xCheckReservedLock = [](sqlite3_file *, int *piReserved) { return *piReserved = 0; };
        own.xFileControl = [](sqlite3_file *, int, void *) { return SQLITE_NOTFOUND; };
        own.xSectorSize = [](sqlite3_file *) { return 0; };
        // Nobody changes it: SQLite then takes no lock and looks for no journal.
        own.xDeviceCharacteristics = [](sqlite3_file *) { return SQLITE_IOCAP_IMMUTABLE; };
        return own;
    }();
    return methods;
}
