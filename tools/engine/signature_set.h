// Which signatures a scan uses, and what identifies them.
#ifndef TARN_TOOLS_ENGINE_SIGNATURE_SET_H
#define TARN_TOOLS_ENGINE_SIGNATURE_SET_H

#include <string>

struct _SignatureSet {
    std::string strPath;        // a signature file or a folder of them
    bool bTestOnly = false;     // the small set that comes with this program
    std::string strFingerprint; // changes with any file's name or content, with the engine and with the scan policy
};

// The first that holds signatures: the --database path (strOption, when not empty), else the system's ClamAV folder,
// else strOwnFolder with the small set that comes with this program. Reads every signature file once. False with the
// reason in strError.
bool ChooseSignatureSet(const std::string &strOption, const std::string &strOwnFolder, _SignatureSet &set,
                        std::string &strError);

#endif
