#include "agent/identity.h"

#include "util/log.h"

#include <cstring>
#include <sodium.h>

namespace {

constexpr char kLogSource[] = "dbagent";
constexpr char kInit[] = "AgentInit";
constexpr char kKeyFile[] = "morcache.key";

} // namespace

std::string CIdentity::KeyPath(const _DBConfig &config) {
    return std::string(config.szDBDir) + kKeyFile;
}

uint32_t CIdentity::LoadKey(const _DBConfig &config) {
    std::string strError;
    m_bHasKey = m_key.Load(KeyPath(config), true, strError);
    if (!m_bHasKey) {
        TARN_LOG_AS(ELogLevel::Error, kInit, "[%s][cache] the identity key cannot be used: %s", strError.c_str());
        return TARN_E_FAIL;
    }
    return TARN_OK;
}

uint32_t CIdentity::MakeTable(const std::string &strCacheTable) {
    if (m_table.Make() != TARN_OK || m_table.FollowDeletions(strCacheTable) != 0) {
        TARN_LOG_AS(ELogLevel::Error, kInit, "[%s][cache] Create Table %s failed.", m_table.m_strTableName.c_str());
        return TARN_E_FAIL;
    }
    return TARN_OK;
}

void CIdentity::OpenForReading(const _DBConfig &config) {
    std::string strError;
    m_bHasKey = m_key.Load(KeyPath(config), false, strError) && m_table.IsThere();
    if (!m_bHasKey) {
        TARN_LOG_AS(ELogLevel::Error, kInit, "[%s][cache] no record can be confirmed, so none answers: %s",
                    strError.empty() ? "there are no identity codes" : strError.c_str());
    }
}

bool CIdentity::FindFileSystem(const char *pszPath, const struct stat &status, uint64_t &ullFileSystem) {
    return m_bHasKey && m_fileSystems.IdentityOf(status.st_dev, pszPath, ullFileSystem);
}

IdentityCode CIdentity::CodeOf(const _FileIdentity &file, const _CacheRecord &record,
                               const char *pszDescription) const {
    return m_key.CodeOf(file, record, pszDescription);
}

bool CIdentity::Confirms(const _FileIdentity &file, const _CacheRecord &record, const char *pszDescription) const {
    const IdentityCode code = CodeOf(file, record, pszDescription);
    return sodium_memcmp(code.data(), record.code.data(), code.size()) == 0;
}
