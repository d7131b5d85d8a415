// Read from sysfs; no state, any thread.
#include "util/medium.h"

#include "support/whole_file.h"

#include <algorithm>
#include <charconv>
#include <dirent.h>
#include <linux/btrfs.h>
#include <memory>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>

namespace {

constexpr size_t kTextLimit = 1U << 16; // bytes; sysfs gives a page at most
constexpr int kDeepest = 8;             // devices upon devices

// One line without its end; empty when there is none.
std::string LineIn(const std::string &strPath) {
    std::string strText;
    (void)LoadWholeFile(strPath.c_str(), ELastLink::Follow, kTextLimit, strText);
    return strText.substr(0, strText.find('\n'));
}

// "8:16"; 0 is no device.
dev_t DeviceFrom(const std::string &strText) {
    unsigned int uMajor = 0;
    unsigned int uMinor = 0;
    const char *const pEnd = strText.data() + strText.size();
    const auto [pColon, error] = std::from_chars(strText.data(), pEnd, uMajor);
    if (error != std::errc() || pColon == pEnd || *pColon != ':' ||
        std::from_chars(pColon + 1, pEnd, uMinor).ec != std::errc()) {
        return 0;
    }
    return makedev(uMajor, uMinor);
}

// Of the named kind itself, no link to it, and nobody but root may change it.
bool IsRootsAlone(const std::string &strPath, mode_t kind, struct stat &status) {
    return lstat(strPath.c_str(), &status) == 0 && (status.st_mode & S_IFMT) == kind && status.st_uid == 0 &&
           (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

class CBlockDevices {
  public:
    explicit CBlockDevices(const std::string &strSys) : m_strSys(strSys) {}

    EMedium MediumOf(dev_t device, int nDepth = 0) const {
        if (device == 0 || nDepth > kDeepest) {
            return EMedium::Unknown;
        }
        std::string strFolder =
            m_strSys + "/dev/block/" + std::to_string(major(device)) + ":" + std::to_string(minor(device));
        if (!LineIn(strFolder + "/partition").empty()) { // its disk is the folder above, also behind the link
            strFolder += "/..";
        }
        const std::string strRemovable = LineIn(strFolder + "/removable");
        if (strRemovable != "0") {
            return strRemovable.empty() ? EMedium::Unknown : EMedium::Removable;
        }
        const std::string strImage = LineIn(strFolder + "/loop/backing_file");
        const EMedium eImage = strImage.empty() ? EMedium::Fixed : MediumOfImage(strImage, nDepth);
        return std::max(eImage, WorstIn(strFolder + "/slaves", nDepth)); // encrypted and joined devices name theirs
    }

    // The most doubtful of the block devices that a folder has links to.
    EMedium WorstIn(const std::string &strFolder, int nDepth = 0) const {
        const std::unique_ptr<DIR, int (*)(DIR *)> pFolder(opendir(strFolder.c_str()), closedir);
        EMedium eWorst = pFolder == nullptr ? EMedium::Unknown : EMedium::Fixed;
        while (const dirent *pEntry = pFolder == nullptr ? nullptr : readdir(pFolder.get())) {
            if (pEntry->d_name[0] != '.') {
                const dev_t device = DeviceFrom(LineIn(strFolder + "/" + pEntry->d_name + "/dev"));
                eWorst = std::max(eWorst, MediumOf(device, nDepth + 1));
            }
        }
        return eWorst;
    }

  private:
    // Who may write the image behind a loop device changes files below the file system, which then shows their old
    // status. Who may write a folder above it decides which file the name means: a deleted image is called by its
    // former name with " (deleted)" behind it, and of a name with a line end the first line is all that is read.
    EMedium MediumOfImage(const std::string &strImage, int nDepth) const {
        struct stat status = {};
        struct statfs fileSystem = {};
        for (size_t nEnd = strImage.find('/', 1); nEnd != std::string::npos; nEnd = strImage.find('/', nEnd + 1)) {
            if (!IsRootsAlone(strImage.substr(0, nEnd), S_IFDIR, status)) {
                return EMedium::Removable;
            }
        }
        if (!IsRootsAlone(strImage, S_IFREG, status) || statfs(strImage.c_str(), &fileSystem) != 0) {
            return EMedium::Removable;
        }
        const EFileSystem eKind = FileSystemOfType(static_cast<uint32_t>(fileSystem.f_type));
        if (eKind == EFileSystem::Forgeable || eKind == EFileSystem::Network || eKind == EFileSystem::Unknown) {
            return EMedium::Removable;
        }
        return major(status.st_dev) == 0 ? EMedium::Fixed : MediumOf(status.st_dev, nDepth + 1);
    }

    const std::string m_strSys;
};

// btrfs shows its devices under its own identity.
EMedium MediumOfBtrfs(int fd, const std::string &strSys) {
    btrfs_ioctl_fs_info_args info = {};
    if (ioctl(fd, BTRFS_IOC_FS_INFO, &info) != 0) {
        return EMedium::Unknown;
    }
    constexpr char kDigits[] = "0123456789abcdef";
    std::string strName;
    for (size_t i = 0; i < sizeof info.fsid; ++i) {
        strName += i == 4 || i == 6 || i == 8 || i == 10 ? "-" : "";
        strName += kDigits[info.fsid[i] >> 4];
        strName += kDigits[info.fsid[i] & 0xF];
    }
    return CBlockDevices(strSys).WorstIn(strSys + "/fs/btrfs/" + strName + "/devices");
}

} // namespace

EMedium MediumOf(int fd, dev_t device, EFileSystem eKind, const std::string &strSys) {
    switch (eKind) {
    case EFileSystem::Disk:
    case EFileSystem::Exchanging:
    case EFileSystem::OtherDisk:
    case EFileSystem::ReadOnly:
        break;
    default:
        return EMedium::Fixed; // it has none of its own, or its kind decides
    }
    if (major(device) != 0) {
        return CBlockDevices(strSys).MediumOf(device);
    }
    // Of the kind Exchanging, btrfs makes device numbers of its own and tells its devices. A pool of the kind OtherDisk
    // does not show in sysfs.
    return eKind == EFileSystem::Exchanging ? MediumOfBtrfs(fd, strSys) : EMedium::Fixed;
}

bool IsWrittenByTrustedAlone(const struct stat &status) {
    return (status.st_uid == 0 || status.st_uid == geteuid()) && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}
