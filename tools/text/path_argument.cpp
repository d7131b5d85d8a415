#include "tools/text/path_argument.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <sys/stat.h>
#include <vector>

namespace {

struct _FreeText {
    void operator()(char *pText) const { free(pText); }
};

std::string RealPath(const std::string &strPath) {
    const std::unique_ptr<char, _FreeText> pResolved(realpath(strPath.c_str(), nullptr));
    return pResolved == nullptr ? std::string() : std::string(pResolved.get());
}

bool IsSameFile(const std::string &strFirst, const std::string &strSecond) {
    struct stat first = {};
    struct stat second = {};
    return stat(strFirst.c_str(), &first) == 0 && stat(strSecond.c_str(), &second) == 0 &&
           first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

// Splits, drops "" and ".", and lets ".." take out the component before it.
std::string Normalise(const std::string &strPath, bool &bWentUp) {
    std::vector<std::string> vecComponents;
    for (size_t nStart = 0; nStart < strPath.size();) {
        const size_t nSlash = std::min(strPath.find('/', nStart), strPath.size());
        std::string strComponent = strPath.substr(nStart, nSlash - nStart);
        nStart = nSlash + 1;
        if (strComponent == "..") {
            bWentUp = true;
            if (!vecComponents.empty()) {
                vecComponents.pop_back();
            }
        } else if (!strComponent.empty() && strComponent != ".") {
            vecComponents.push_back(std::move(strComponent));
        }
    }
    std::string strResult;
    for (const std::string &strComponent : vecComponents) {
        strResult += "/" + strComponent;
    }
    return strResult.empty() ? "/" : strResult;
}

} // namespace

std::string AbsolutePath(const std::string &strPath) {
    std::string strWhole = strPath;
    if (strPath.empty() || strPath.front() != '/') {
        std::error_code error;
        const std::string strFolder = std::filesystem::current_path(error).string();
        if (error) {
            errno = error.value();
            return {};
        }
        strWhole = strFolder + "/" + strPath;
    }
    bool bWentUp = false;
    std::string strResult = Normalise(strWhole, bWentUp);
    if (bWentUp && !IsSameFile(strWhole, strResult)) {
        std::string strReal = RealPath(strWhole);
        if (!strReal.empty()) {
            return strReal;
        }
    }
    return strResult;
}

std::string AbsoluteGlob(const std::string &strGlob) {
    std::string strResult = strGlob;
    while (strResult.size() > 1 && strResult.back() == '/') {
        strResult.pop_back();
    }
    const bool bByPath = strResult.find('/') != std::string::npos && strResult.front() != '*';
    return bByPath ? AbsolutePath(strResult) : strResult;
}

bool ResolveArgument(const std::string &strArgument, _PathArgument &argument) {
    argument.strOpen = strArgument;
    argument.strPath = AbsolutePath(strArgument);
    if (argument.strPath.empty()) {
        return false;
    }
    struct stat status = {};
    argument.bLink = lstat(argument.strPath.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
    if (argument.bLink) {
        argument.strPath = RealPath(argument.strPath);
        argument.strOpen = argument.strPath;
    }
    return !argument.strPath.empty();
}
