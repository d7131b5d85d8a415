// own_reading.h - SQLite over the database file as we read it ourselves: through a descriptor of our own, without
// locks, without a journal, and knowing of each read that failed.
//
// Whoever closes a descriptor of a file drops all POSIX locks that his process holds on it. So this may live only while
// no connection of ours has the file open, or has to outlive it.
#ifndef TARN_AGENT_OWN_READING_H
#define TARN_AGENT_OWN_READING_H

#include "agent/forwarding_vfs.h"
#include "support/descriptor.h"

#include <functional>

class COwnReading : public CForwardingVfs {
  public:
    ~COwnReading() override { Close(); }

    // Opens file and connection. 0 or the SQLite code. An open descriptor is kept and used again. mustStop, asked from
    // time to time, lets every further read fail.
    [[nodiscard]] int Open(const std::string &strPath, std::function<bool()> mustStop = nullptr);
    [[nodiscard]] sqlite3 *Handle() const { return m_pDB; }
    // Has the system refused a read, or was it stopped? What SQLite says of the file then proves nothing.
    [[nodiscard]] bool HasFailed() const { return m_bFailed; }
    // The connection; the descriptor stays.
    void CloseConnection();
    void Close();

  protected:
    int OpenFile(const char *pszPath, sqlite3_file *pFile, int iFlags, int *piOutFlags) override;
    int FileSize() const override;

  private:
    static int Read(sqlite3_file *pFile, void *pBuffer, int nBytes, sqlite3_int64 liOffset);
    static int Measure(sqlite3_file *pFile, sqlite3_int64 *pliSize);
    static const sqlite3_io_methods &Methods();

    CDescriptor m_file;
    sqlite3 *m_pDB = nullptr;
    std::function<bool()> m_mustStop;
    uint32_t m_ulReads = 0;
    bool m_bFailed = false;
};

#endif
