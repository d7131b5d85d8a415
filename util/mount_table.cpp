#include "util/mount_table.h"

#include <poll.h>

CMountTable::CMountTable() : m_table(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC)) {
    (void)HasChanged(); // what was before does not count
}

bool CMountTable::HasChanged() const {
    pollfd table = {m_table.Get(), POLLPRI, 0};
    return !m_table.IsOpen() || poll(&table, 1, 0) != 0; // a failed poll says nothing, so nothing is kept
}
