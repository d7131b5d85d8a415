#include "tools/commands/command.h"

#include <CLI/CLI.hpp>

namespace {

constexpr const char *kRootHelp =
    "Installation folder (default: the parent of TARN_INSTALL_DIR; else the program's own prefix when it holds "
    "config/tarncfg.ini; else /var/lib/tarncache for root, ~/.local/share/tarncache for others)";

} // namespace

CLI::App *AddCommandLine(CLI::App &app, const char *pszName, const char *pszHelp, std::string &strRoot) {
    CLI::App *pLine = app.add_subcommand(pszName, pszHelp);
    pLine->add_option("--root", strRoot, kRootHelp)->type_name("DIR");
    return pLine;
}

void AddMD5s(CLI::App *pLine, std::vector<std::string> &vecMD5) {
    pLine->add_option("MD5", vecMD5, "32 hexadecimal digits; - reads them from standard input")
        ->required()
        ->type_name("");
}

EExitStatus WithCache(const std::string &strRoot, ECacheUse eUse,
                      const std::function<EExitStatus(const CInstallRoot &root)> &work) {
    const CInstallRoot root(strRoot);
    CCacheUse cache;
    std::string strError;
    return cache.Start(root, eUse, strError) ? work(root) : Fail(strError);
}
