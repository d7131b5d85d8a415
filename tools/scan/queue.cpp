#include "tools/scan/queue.h"

#include <algorithm>
#include <iterator>

bool CJobQueue::Push(std::vector<_ScanJob> &vecJobs) {
    std::unique_lock lock(m_mutex);
    if (m_jobs.size() >= kCapacity) {
        m_room.wait(lock, [this] { return m_bAborted || m_jobs.size() <= kLowWater; });
    }
    if (!m_bAborted) {
        std::move(vecJobs.begin(), vecJobs.end(), std::back_inserter(m_jobs));
    }
    vecJobs.clear();
    m_work.notify_all();
    return !m_bAborted;
}

std::vector<_ScanJob> CJobQueue::Pop() {
    std::vector<_ScanJob> vecTaken;
    std::unique_lock lock(m_mutex);
    m_work.wait(lock, [this] { return m_bAborted || m_bClosed || !m_jobs.empty(); });
    const size_t nShare = std::clamp<size_t>(m_jobs.size() / (2 * m_nWorkers), 1, kMostAtOnce);
    const auto nTaken = static_cast<std::ptrdiff_t>(std::min(nShare, m_jobs.size()));
    std::move(m_jobs.begin(), m_jobs.begin() + nTaken, std::back_inserter(vecTaken));
    m_jobs.erase(m_jobs.begin(), m_jobs.begin() + nTaken);
    if (m_jobs.size() <= kLowWater) {
        m_room.notify_one();
    }
    return vecTaken;
}

void CJobQueue::Close() {
    const std::lock_guard lock(m_mutex);
    m_bClosed = true;
    m_work.notify_all();
}

void CJobQueue::Abort() {
    const std::lock_guard lock(m_mutex);
    m_bAborted = true;
    m_jobs.clear();
    m_room.notify_all();
    m_work.notify_all();
}
