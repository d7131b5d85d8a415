#include "util/file_system_kind.h"

#include <algorithm>
#include <iterator>

namespace {

struct _Kind {
    uint32_t ulType;
    EFileSystem eKind;
};

// Numbers, since the system's own header has not all of them.
constexpr _Kind kKinds[] = {
    {0xEF53, EFileSystem::Disk},           // ext2, ext3, ext4
    {0xF2F52010, EFileSystem::Disk},       // f2fs
    {0x58465342, EFileSystem::Exchanging}, // xfs: XFS_IOC_SWAPEXT and FIDEDUPERANGE leave all times alone
    {0x9123683E, EFileSystem::Exchanging}, // btrfs: FIDEDUPERANGE, which compares pages that a held write has changed
    {0x794C7630, EFileSystem::Overlay},    // overlayfs
    {0x3153464A, EFileSystem::OtherDisk},  // jfs
    {0x52654973, EFileSystem::OtherDisk},  // reiserfs
    {0x3434, EFileSystem::OtherDisk},      // nilfs2
    {0x2FC12FC1, EFileSystem::OtherDisk},  // zfs
    {0xCA451A4E, EFileSystem::Exchanging}, // bcachefs: likewise
    {0x73717368, EFileSystem::ReadOnly},   // squashfs
    {0xE0F5E1E2, EFileSystem::ReadOnly},   // erofs
    {0x28CD3D45, EFileSystem::ReadOnly},   // cramfs
    {0x7275, EFileSystem::ReadOnly},       // romfs
    {0x01021994, EFileSystem::Memory},     // tmpfs
    {0x858458F6, EFileSystem::Memory},     // ramfs
    {0x958458F6, EFileSystem::Memory},     // hugetlbfs
    {0x6969, EFileSystem::Network},        // nfs
    {0x517B, EFileSystem::Network},        // smbfs
    {0xFF534D42, EFileSystem::Network},    // cifs
    {0xFE534D42, EFileSystem::Network},    // smb2, smb3
    {0x5346414F, EFileSystem::Network},    // afs
    {0x6B414653, EFileSystem::Network},    // the kernel's own afs
    {0x00C36400, EFileSystem::Network},    // ceph
    {0x01021997, EFileSystem::Network},    // 9p
    {0x73757245, EFileSystem::Network},    // coda
    {0x564C, EFileSystem::Network},        // ncp
    {0x7461636F, EFileSystem::Network},    // ocfs2
    {0x01161970, EFileSystem::Network},    // gfs2
    {0x0BD00BD0, EFileSystem::Network},    // lustre
    {0x47504653, EFileSystem::Network},    // gpfs
    {0x20030528, EFileSystem::Network},    // orangefs
    {0x786F4256, EFileSystem::Network},    // vboxsf
    {0x65735546, EFileSystem::Forgeable},  // fuse
    {0x65735543, EFileSystem::Forgeable},  // fusectl
    {0x4D44, EFileSystem::Forgeable},      // fat: the change time on the medium is the modification time
    {0x2011BAB0, EFileSystem::Forgeable},  // exfat: likewise
    {0x4244, EFileSystem::Forgeable},      // hfs
    {0x9660, EFileSystem::Forgeable},      // iso9660
    {0x15013346, EFileSystem::Forgeable},  // udf
    {0xF15F, EFileSystem::Forgeable},      // ecryptfs: the files below can be written
    {0x61756673, EFileSystem::Forgeable},  // aufs: likewise
    {0x00C0FFEE, EFileSystem::Forgeable},  // hostfs
    {0x9FA0, EFileSystem::Forgeable},      // proc
    {0x62656572, EFileSystem::Forgeable},  // sysfs
    {0x62656570, EFileSystem::Forgeable},  // configfs
    {0x64626720, EFileSystem::Forgeable},  // debugfs
    {0x74726163, EFileSystem::Forgeable},  // tracefs
    {0x73636673, EFileSystem::Forgeable},  // securityfs
    {0xF97CFF8C, EFileSystem::Forgeable},  // selinuxfs
    {0x43415D53, EFileSystem::Forgeable},  // smackfs
    {0x0027E0EB, EFileSystem::Forgeable},  // cgroup
    {0x63677270, EFileSystem::Forgeable},  // cgroup2
    {0x6165676C, EFileSystem::Forgeable},  // pstore
    {0xDE5E81E4, EFileSystem::Forgeable},  // efivarfs
    {0xCAFE4A11, EFileSystem::Forgeable},  // bpf
    {0x42494E4D, EFileSystem::Forgeable},  // binfmt_misc
    {0x19800202, EFileSystem::Forgeable},  // mqueue
    {0x6E736673, EFileSystem::Forgeable},  // nsfs
    {0x09041934, EFileSystem::Forgeable},  // anonymous inodes
};

} // namespace

EFileSystem FileSystemOfType(uint32_t ulType) {
    const auto *const pKind =
        std::find_if(std::begin(kKinds), std::end(kKinds), [=](const _Kind &kind) { return kind.ulType == ulType; });
    return pKind == std::end(kKinds) ? EFileSystem::Unknown : pKind->eKind;
}
