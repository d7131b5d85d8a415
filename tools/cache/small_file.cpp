#include "tools/cache/small_file.h"

#include "tools/text/text.h"

bool WriteSmallFile(const std::string &strPath, std::string_view content, mode_t newMode, EExisting eExisting,
                    std::string &strError) {
    const int iError = SaveWholeFile(strPath.c_str(), content, newMode, eExisting);
    if (iError != 0) {
        strError = "cannot write " + ErrnoText(strPath, iError);
    }
    return iError == 0;
}

EReadFile ReadSmallFile(const std::string &strPath, size_t nLimit, std::string &strContent, std::string &strError) {
    const int iError = LoadWholeFile(strPath.c_str(), ELastLink::Refuse, nLimit, strContent);
    if (iError == 0 || iError == ENOENT) {
        return iError == 0 ? EReadFile::Read : EReadFile::Missing;
    }
    strError = ReadFailureText(strPath, iError);
    return EReadFile::Failed;
}

std::string ReadFailureText(const std::string &strPath, int iError) {
    const bool bUnfit = iError == EISDIR || iError == EINVAL || iError == EFBIG;
    return bUnfit ? EscapeName(strPath) + " is not a regular file or is too large"
                  : "cannot read " + ErrnoText(strPath, iError);
}
