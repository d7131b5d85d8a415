// mount_table.h - whether mounts came or went, for what is kept of a file system.
#ifndef TARN_UTIL_MOUNT_TABLE_H
#define TARN_UTIL_MOUNT_TABLE_H

#include "support/descriptor.h"

class CMountTable {
  public:
    CMountTable();

    // Since the last call, or since the object was made; always true where the kernel does not say. The kernel tells a
    // change once, so ask and forget under one hold of a lock: nobody may use old knowledge in between.
    [[nodiscard]] bool HasChanged() const;

  private:
    CDescriptor m_table; // its poll tells each change once
};

#endif
