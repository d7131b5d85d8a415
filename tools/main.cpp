// tarncache: scans files with libclamav behind the cache of libtarncache, and looks after that cache.
#include "tools/commands/commands.h"

#include "tools/text.h"
#include "tools/text/path_argument.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr const char *kRootHelp =
    "Installation folder (default: the parent of TARN_INSTALL_DIR; else the program's own prefix when it holds "
    "config/tarncfg.ini; else /var/lib/tarncache for root, ~/.local/share/tarncache for others)";

// "100M" and the like, in units of 1024.
CLI::Validator SizeText() {
    CLI::Validator size = CLI::AsSizeValue(false);
    return size.description("");
}

void AddScan(CLI::App &app, _ScanOptions &options) {
    CLI::App *pScan = app.add_subcommand("scan", "Scan files and folders; unchanged files are answered from the cache");
    pScan->add_option("PATH", options.vecPaths, "Files and folders; a PATH that is a link stands for its target")
        ->type_name("");
    pScan->add_option("--root", options.strRoot, kRootHelp)->type_name("DIR");
    pScan
        ->add_option("--database,-d", options.strDatabase,
                     "Signature file or folder of signature files; another set than last time "
                     "drops the verdicts in this cache (not with --no-cache)")
        ->type_name("PATH");
    pScan->add_option("--threads,-t", options.nThreads, "Worker threads (default: the processors of this process)")
        ->check(CLI::Range(1u, 1024u).description(""));
    pScan
        ->add_option("--exclude", options.vecExclude,
                     "Skip what matches, by whole path or by any name in it; may be repeated")
        ->type_name("GLOB")
        ->allow_extra_args(false);
    pScan->add_option("--file-list,-f", options.strFileList, "Scan the paths in FILE, one a line; - is standard input")
        ->type_name("FILE");
    pScan->add_flag("--null,-0", options.bNullSeparated, "The file list is separated by NUL bytes");
    pScan->add_flag("--no-cache", options.bNoCache, "Neither ask nor fill the cache");
    pScan->add_flag("--verbose,-v", options.report.bVerbose, "Report clean files too");
    pScan->add_flag("--infected,-i", options.report.bInfectedOnly, "Report infected files only, no errors");
    pScan->add_flag("--quiet,-q", options.report.bQuiet, "No summary, no progress, no remarks");
    pScan->add_flag("--json", options.report.bJson, "One JSON object a line: reported files, then the summary");
    pScan
        ->add_option("--max-filesize", options.limits.ullMaxFileSize,
                     "Do not scan files larger than this (0: only the engine's own limit of 2 GiB)")
        ->transform(SizeText())
        ->type_name("SIZE")
        ->default_str("100M");
    pScan
        ->add_option("--max-scansize", options.limits.ullMaxScanSize,
                     "Unpack at most this much from one file (0: no limit)")
        ->transform(SizeText())
        ->type_name("SIZE")
        ->default_str("400M");
    pScan->add_option("--max-scantime", options.limits.ulMaxScanTime, "Seconds for one file, 0 for no limit")
        ->check(CLI::Range(0u, 86400u).description(""))
        ->type_name("SECONDS")
        ->default_str("120");
    pScan->footer("Exit status: 0 clean, 1 infected files found, 2 errors and nothing infected, 130 interrupted.");
}

CLI::App *AddAsk(CLI::App &app, const std::string &strName, const std::string &strHelp, _AskOptions &options) {
    CLI::App *pCommand = app.add_subcommand(strName, strHelp);
    pCommand->add_option("--root", options.strRoot, kRootHelp)->type_name("DIR");
    return pCommand;
}

void AddQuestions(CLI::App &app, _AskOptions &options) {
    CLI::App *pLookup = AddAsk(app, "lookup", "Tell what the cache knows of files", options);
    pLookup->add_option("PATH", options.vecArguments, "Files")->required()->type_name("");
    pLookup->add_flag("--json", options.bJson, "One JSON object a line");
    pLookup->footer("Exit status: 0 all known and unchanged, 1 some are not, 2 errors.");
    CLI::App *pStats = AddAsk(app, "stats", "Count the records of the cache", options);
    pStats->add_flag("--json", options.bJson, "One JSON object");
    CLI::App *pForget = AddAsk(app, "forget", "Delete the records of files with these MD5s", options);
    pForget->add_option("MD5", options.vecArguments, "32 hexadecimal digits; - reads them from standard input")
        ->required()
        ->type_name("");
    CLI::App *pFind = AddAsk(app, "find", "Find the files on this machine that carry these MD5s", options);
    pFind->add_option("MD5", options.vecArguments, "32 hexadecimal digits; - reads them from standard input")
        ->required()
        ->type_name("");
    pFind->add_flag("--json", options.bJson, "One JSON object a line");
    pFind->add_flag("--null,-0", options.bNullSeparated, "Only the paths, each ended by a NUL byte");
    pFind->footer("Exit status: 0 files found for every MD5, 1 not for all, 2 errors.");
}

void AddWithdraw(CLI::App &app, _WithdrawOptions &options) {
    CLI::App *pCommand =
        app.add_subcommand("withdraw", "Leave a list of MD5s whose verdicts the next scan drops (updater's side)");
    pCommand->add_option("--root", options.strRoot, kRootHelp)->type_name("DIR");
    pCommand->add_option("--engine-version", options.strVersion, "Version of the engine update, at most 99 bytes")
        ->type_name("TEXT")
        ->required();
    pCommand->add_option("LIST", options.strList, "File with one MD5 a line (default: standard input)")->type_name("");
}

// A program started with one of these closed would give its number to the next file it opens, and write messages there.
bool KeepStandardStreams() {
    for (int fd = open("/dev/null", O_RDWR); fd >= 0; fd = open("/dev/null", O_RDWR)) {
        if (fd > STDERR_FILENO) {
            return close(fd) == 0;
        }
    }
    return false;
}

int Run(int argc, char **argv) {
    _ScanOptions scan;
    _AskOptions ask;
    _WithdrawOptions withdraw;
    CLI::App app("Antivirus scanning with a persistent cache of scan results.", "tarncache");
    app.set_version_flag("--version", std::string("tarncache ") + TARN_VERSION);
    app.require_subcommand(1);
    AddScan(app, scan);
    AddQuestions(app, ask);
    AddWithdraw(app, withdraw);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? kExitClean : kExitTrouble;
    }
    if (app.got_subcommand("scan")) {
        if (scan.vecPaths.empty() && scan.strFileList.empty()) {
            return Trouble("scan: nothing to scan; give a PATH or --file-list");
        }
        for (std::string &strGlob : scan.vecExclude) {
            strGlob = AbsoluteGlob(strGlob);
        }
        return RunScan(scan);
    }
    if (app.got_subcommand("withdraw")) {
        return RunWithdraw(withdraw);
    }
    if (app.got_subcommand("lookup")) {
        return RunLookup(ask);
    }
    if (app.got_subcommand("stats")) {
        return RunStats(ask);
    }
    return app.got_subcommand("forget") ? RunForget(ask) : RunFind(ask);
}

} // namespace

int Trouble(const std::string &strText) {
    (void)std::fputs(("tarncache: " + strText + "\n").c_str(), stderr);
    return kExitTrouble;
}

int Finish(const std::string &strOutput, int status) {
    const bool bWritten = std::fwrite(strOutput.data(), 1, strOutput.size(), stdout) == strOutput.size();
    if (bWritten && std::fflush(stdout) == 0) {
        return status;
    }
    return Trouble(ErrnoText("standard output", errno));
}

int main(int argc, char **argv) {
    if (!KeepStandardStreams()) {
        return kExitTrouble;
    }
    try {
        return Run(argc, argv);
    } catch (const std::exception &error) {
        return Trouble(error.what());
    }
}
