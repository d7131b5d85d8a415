#include "tools/cache/atomic_file.h"

#include "tools/text/text.h"

bool WriteFileAtomically(const std::string &strPath, std::string_view content, mode_t newMode, EExisting eExisting,
                         std::string &strError) {
    const int iError = SaveWholeFile(strPath.c_str(), content, newMode, eExisting);
    if (iError != 0) {
        strError = "cannot write " + ErrnoText(strPath, iError);
    }
    return iError == 0;
}

bool ReadWholeFile(const std::string &strPath, size_t nLimit, std::string &strContent, bool &bMissing,
                   std::string &strError) {
    const int iError = LoadWholeFile(strPath.c_str(), ELastLink::Refuse, nLimit, strContent);
    bMissing = iError == ENOENT;
    if (iError != 0) {
        strError = ReadFailure(strPath, iError);
    }
    return iError == 0;
}

std::string ReadFailure(const std::string &strPath, int iError) {
    const bool bUnfit = iError == EISDIR || iError == EINVAL || iError == EFBIG;
    return bUnfit ? EscapeName(strPath) + " is not a regular file or is too large"
                  : "cannot read " + ErrnoText(strPath, iError);
}
