#include "tools/commands/commands.h"

#include "tools/cache/session.h"
#include "tools/engine/file_verdict.h"
#include "tools/text.h"
#include "tools/text/json_output.h"
#include "tools/text/path_argument.h"

#include <array>
#include <cstring>

namespace {

struct _Known {
    uint32_t ulState = TARN_PEEK_UNKNOWN;
    std::array<char, TARN_MD5_TEXT_SIZE> md5 = {};
    _SCAN_FILE_RESULT record = {};

    std::string Name() const { return {record.szVirusDesc, strnlen(record.szVirusDesc, TARN_VIRUS_DESC_SIZE)}; }
    const char *StateText() const {
        return ulState == TARN_PEEK_KNOWN ? "known" : ulState == TARN_PEEK_CHANGED ? "changed" : "unknown";
    }
    // Other engines give their result states meanings of their own; a description always says infected.
    const char *VerdictText() const { return VerdictName(Name().empty() ? EVerdict::Clean : EVerdict::Infected); }
};

std::string TextLine(const std::string &strPath, const _Known &known) {
    std::string strLine = EscapeName(strPath) + ": " + known.StateText();
    if (known.ulState != TARN_PEEK_UNKNOWN) {
        strLine += std::string(", ") + known.VerdictText();
        if (!known.Name().empty()) {
            strLine += " (" + EscapeName(known.Name()) + ")";
        }
        strLine += ", engine " + std::to_string(known.record.lEngineCode) + ", MD5 " + known.md5.data();
    }
    return strLine + "\n";
}

std::string JsonText(const std::string &strPath, const _Known &known) {
    Json object;
    object["type"] = "file";
    PutName(object, "path", strPath);
    object["state"] = known.StateText();
    if (known.ulState != TARN_PEEK_UNKNOWN) {
        object["verdict"] = known.VerdictText();
        if (!known.Name().empty()) {
            PutName(object, "name", known.Name());
        }
        object["engine"] = int32_t{known.record.lEngineCode}; // by value: the field is not aligned
        object["file_type"] = TypeName(TypeOfFlags(known.record.ulFlags));
        object["md5"] = known.md5.data();
    }
    return JsonLine(object);
}

} // namespace

int RunLookup(const _AskOptions &options) {
    const CInstallRoot root(options.strRoot);
    root.ExportToLibrary();
    std::string strError;
    CReadOnlyCache cache;
    if (!cache.Start(root, strError)) {
        return Trouble(strError);
    }
    const std::string strPending = PendingText(root);
    if (!strPending.empty()) {
        (void)Trouble(strPending);
    }
    int status = kExitClean;
    std::string strOutput;
    for (const std::string &strArgument : options.vecArguments) {
        _PathArgument argument;
        if (!ResolveArgument(strArgument, argument)) {
            argument.strPath = AbsolutePath(strArgument);
        }
        _Known known;
        const uint32_t ulCode =
            LocalCachePeek(argument.strPath.c_str(), known.md5.data(), &known.record, &known.ulState);
        if (ulCode != TARN_OK) {
            (void)Trouble("cannot look up " + EscapeName(argument.strPath));
            status = kExitTrouble;
            continue;
        }
        strOutput += options.bJson ? JsonText(argument.strPath, known) : TextLine(argument.strPath, known);
        if (known.ulState != TARN_PEEK_KNOWN && status == kExitClean) {
            status = kExitFound;
        }
    }
    return Finish(strOutput, status);
}
