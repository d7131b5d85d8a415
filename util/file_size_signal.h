// file_size_signal.h - keeps a file-size limit from killing the host.
#ifndef TARN_UTIL_FILE_SIZE_SIGNAL_H
#define TARN_UTIL_FILE_SIZE_SIGNAL_H

#include <csignal>

// Blocks SIGXFSZ for the calling thread while it lives, and consumes the one that a refused write raised meanwhile, so
// that SQLite sees a failed write and the host sees nothing. No process-wide handler is touched. One that was pending
// before stays pending.
class CFileSizeSignalBlock {
  public:
    CFileSizeSignalBlock();
    ~CFileSizeSignalBlock();
    CFileSizeSignalBlock(const CFileSizeSignalBlock &) = delete;
    CFileSizeSignalBlock &operator=(const CFileSizeSignalBlock &) = delete;

  private:
    sigset_t m_previousMask;
    bool m_bPendingBefore;
};

#endif
