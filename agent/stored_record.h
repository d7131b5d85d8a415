// stored_record.h - a stored record in the words of the public header.
#ifndef TARN_AGENT_STORED_RECORD_H
#define TARN_AGENT_STORED_RECORD_H

#include "platform/tarncore.h"
#include "util/cache_record.h"

// Text that is not 32 hexadecimal digits counts as 16 zero bytes, when it is added as well as when it is asked for.
inline CacheMD5 MD5Of(const char *pszMD5) {
    CacheMD5 md5 = {};
    (void)MD5_StrResultConvert(pszMD5, &md5);
    return md5;
}

// 33 bytes.
inline void CopyMD5Out(const _CacheRecord &record, char *pszMD5) {
    const CacheMD5 md5 = {record.liHighMD5, record.liLowMD5};
    (void)MD5_BinResultConvert(&md5, pszMD5);
}

// Everything but the description, which the virus table writes.
inline void CopyVerdictOut(const _CacheRecord &record, char *pszMD5, _SCAN_FILE_RESULT *pResult) {
    pResult->lEngineCode = VerdictEngineCode(record.liTreatVirus);
    CopyMD5Out(record, pszMD5);
    pResult->ulFlags = WithResultState(VerdictFlags(record.liTreatVirus), record.lResultState);
}

#endif
