#include "tools/cache/verdict_record.h"
#include "tools/commands/commands.h"
#include "tools/text/json_output.h"
#include "tools/text/path_argument.h"
#include "tools/text/text.h"

#include <CLI/CLI.hpp>

#include <array>
#include <cstring>
#include <memory>

namespace {

struct _LookupOptions {
    std::vector<std::string> vecPaths;
    std::string strRoot;
    bool bJson = false;
};

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

uint32_t LookUp(const std::string &strPath, _Known &known) {
    return LocalCachePeek(strPath.c_str(), known.md5.data(), &known.record, &known.ulState);
}

EExitStatus LookUpAll(const CInstallRoot &root, const _LookupOptions &options) {
    const std::string strPending = PendingText(root);
    if (!strPending.empty()) {
        PrintMessage(strPending);
    }
    EExitStatus eStatus = EExitStatus::Success;
    std::string strOutput;
    for (const std::string &strArgument : options.vecPaths) {
        _PathArgument argument = {};
        if (!ResolveArgument(strArgument, argument)) {
            argument.strPath = AbsolutePath(strArgument);
        }
        _Known known = {};
        if (const uint32_t ulCode = LookUp(argument.strPath, known); ulCode != TARN_OK) {
            eStatus = Fail("cannot look up " + EscapeName(argument.strPath) + ": " + LocalCacheErrorText(ulCode));
            continue;
        }
        strOutput += options.bJson ? JsonText(argument.strPath, known) : TextLine(argument.strPath, known);
        if (known.ulState != TARN_PEEK_KNOWN && eStatus == EExitStatus::Success) {
            eStatus = EExitStatus::Attention;
        }
    }
    return FinishWith(strOutput, eStatus);
}

} // namespace

_Command AddLookup(CLI::App &app) {
    const auto pOptions = std::make_shared<_LookupOptions>();
    CLI::App *pLine = AddCommandLine(app, "lookup", "Tell what the cache knows of files", pOptions->strRoot);
    pLine->add_option("PATH", pOptions->vecPaths, "Files")->required()->type_name("");
    pLine->add_flag("--json", pOptions->bJson, "One JSON object a line");
    pLine->footer("Exit status: 0 all known and unchanged, 1 some are not, 2 errors.");
    return {pLine, [pOptions] {
                return WithCache(pOptions->strRoot, ECacheUse::Questions,
                                 [&](const CInstallRoot &root) { return LookUpAll(root, *pOptions); });
            }};
}
