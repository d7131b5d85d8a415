// tarncache: scans files with libclamav behind the cache of libtarncache, and looks after that cache.
#include "tools/commands/exit_status.h"
#include "tools/commands/find.h"
#include "tools/commands/forget.h"
#include "tools/commands/lookup.h"
#include "tools/commands/scan.h"
#include "tools/commands/stats.h"
#include "tools/commands/withdraw.h"
#include "tools/text/path_argument.h"

#include <CLI/CLI.hpp>

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

CLI::App *AddCommand(CLI::App &app, const std::string &strName, const std::string &strHelp, std::string &strRoot) {
    CLI::App *pCommand = app.add_subcommand(strName, strHelp);
    pCommand->add_option("--root", strRoot, kRootHelp)->type_name("DIR");
    return pCommand;
}

void AddTargets(CLI::App *pScan, _ScanTargets &targets) {
    pScan->add_option("PATH", targets.vecPaths, "Files and folders; a PATH that is a link stands for its target")
        ->type_name("");
    pScan
        ->add_option("--exclude", targets.vecExclude,
                     "Skip what matches, by whole path or by any name in it; may be repeated")
        ->type_name("GLOB")
        ->allow_extra_args(false);
    pScan->add_option("--file-list,-f", targets.strFileList, "Scan the paths in FILE, one a line; - is standard input")
        ->type_name("FILE");
    pScan->add_flag("--null,-0", targets.bNullSeparated, "The file list is separated by NUL bytes");
}

void AddReport(CLI::App *pScan, _ReportOptions &report) {
    pScan->add_flag("--verbose,-v", report.bVerbose, "Report clean files too");
    pScan->add_flag("--infected,-i", report.bInfectedOnly, "Report infected files only, no errors");
    pScan->add_flag("--quiet,-q", report.bQuiet, "No summary, no progress, no remarks");
    pScan->add_flag("--json", report.bJson, "One JSON object a line: reported files, then the summary");
}

void AddLimits(CLI::App *pScan, _ScanLimits &limits) {
    pScan
        ->add_option("--max-filesize", limits.ullMaxFileSize,
                     "Do not scan files larger than this (0: only the engine's own limit of 2 GiB)")
        ->transform(SizeText())
        ->type_name("SIZE")
        ->default_str("100M");
    pScan->add_option("--max-scansize", limits.ullMaxScanSize, "Unpack at most this much from one file (0: no limit)")
        ->transform(SizeText())
        ->type_name("SIZE")
        ->default_str("400M");
    pScan->add_option("--max-scantime", limits.ulMaxScanTime, "Seconds for one file, 0 for no limit")
        ->check(CLI::Range(0u, 86400u).description(""))
        ->type_name("SECONDS")
        ->default_str("120");
}

void AddScan(CLI::App &app, _ScanOptions &options) {
    CLI::App *pScan =
        AddCommand(app, "scan", "Scan files and folders; unchanged files are answered from the cache", options.strRoot);
    pScan
        ->add_option("--database,-d", options.strDatabase,
                     "Signature file or folder of signature files; another set than last time "
                     "drops the verdicts in this cache (not with --no-cache)")
        ->type_name("PATH");
    pScan->add_option("--threads,-t", options.nThreads, "Worker threads (default: the processors of this process)")
        ->check(CLI::Range(1u, 1024u).description(""));
    AddTargets(pScan, options.targets);
    pScan->add_flag("--no-cache", options.bNoCache, "Neither ask nor fill the cache");
    AddReport(pScan, options.report);
    AddLimits(pScan, options.limits);
    pScan->footer("Exit status: 0 clean, 1 infected files found, 2 errors and nothing infected, 130 interrupted.");
}

void AddMD5s(CLI::App *pCommand, std::vector<std::string> &vecMD5) {
    pCommand->add_option("MD5", vecMD5, "32 hexadecimal digits; - reads them from standard input")
        ->required()
        ->type_name("");
}

void AddLookup(CLI::App &app, _LookupOptions &options) {
    CLI::App *pLookup = AddCommand(app, "lookup", "Tell what the cache knows of files", options.strRoot);
    pLookup->add_option("PATH", options.vecPaths, "Files")->required()->type_name("");
    pLookup->add_flag("--json", options.bJson, "One JSON object a line");
    pLookup->footer("Exit status: 0 all known and unchanged, 1 some are not, 2 errors.");
}

void AddStats(CLI::App &app, _StatsOptions &options) {
    CLI::App *pStats = AddCommand(app, "stats", "Count the records of the cache", options.strRoot);
    pStats->add_flag("--json", options.bJson, "One JSON object");
}

void AddForget(CLI::App &app, _ForgetOptions &options) {
    AddMD5s(AddCommand(app, "forget", "Delete the records of files with these MD5s", options.strRoot), options.vecMD5);
}

void AddFind(CLI::App &app, _FindOptions &options) {
    CLI::App *pFind = AddCommand(app, "find", "Find the files on this machine that carry these MD5s", options.strRoot);
    AddMD5s(pFind, options.vecMD5);
    pFind->add_flag("--json", options.bJson, "One JSON object a line");
    pFind->add_flag("--null,-0", options.bNullSeparated, "Only the paths, each ended by a NUL byte");
    pFind->footer("Exit status: 0 files found for every MD5, 1 not for all, 2 errors.");
}

void AddWithdraw(CLI::App &app, _WithdrawOptions &options) {
    CLI::App *pWithdraw = AddCommand(
        app, "withdraw", "Leave a list of MD5s whose verdicts the next scan drops (updater's side)", options.strRoot);
    pWithdraw->add_option("--engine-version", options.strVersion, "Version of the engine update, at most 99 bytes")
        ->type_name("TEXT")
        ->required();
    pWithdraw->add_option("LIST", options.strList, "File with one MD5 a line (default: standard input)")->type_name("");
}

// What the command line asks for. Only the chosen command's options count.
struct _CommandLine {
    _ScanOptions scan = {};
    _LookupOptions lookup = {};
    _StatsOptions stats = {};
    _ForgetOptions forget = {};
    _FindOptions find = {};
    _WithdrawOptions withdraw = {};
};

EExitStatus CheckAndScan(_ScanOptions &options) {
    if (options.targets.vecPaths.empty() && options.targets.strFileList.empty()) {
        return Fail("scan: nothing to scan; give a PATH or --file-list");
    }
    for (std::string &strGlob : options.targets.vecExclude) {
        strGlob = AbsoluteGlob(strGlob);
    }
    return RunScan(options);
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

EExitStatus Run(int argc, char **argv) {
    _CommandLine line = {};
    CLI::App app("Antivirus scanning with a persistent cache of scan results.", "tarncache");
    app.set_version_flag("--version", std::string("tarncache ") + TARN_VERSION);
    app.require_subcommand(1);
    AddScan(app, line.scan);
    AddLookup(app, line.lookup);
    AddStats(app, line.stats);
    AddForget(app, line.forget);
    AddFind(app, line.find);
    AddWithdraw(app, line.withdraw);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? EExitStatus::Success : EExitStatus::Failure;
    }
    if (app.got_subcommand("scan")) {
        return CheckAndScan(line.scan);
    }
    if (app.got_subcommand("lookup")) {
        return RunLookup(line.lookup);
    }
    if (app.got_subcommand("stats")) {
        return RunStats(line.stats);
    }
    if (app.got_subcommand("forget")) {
        return RunForget(line.forget);
    }
    return app.got_subcommand("find") ? RunFind(line.find) : RunWithdraw(line.withdraw);
}

} // namespace

int main(int argc, char **argv) {
    if (!KeepStandardStreams()) {
        return static_cast<int>(EExitStatus::Failure);
    }
    try {
        return static_cast<int>(Run(argc, argv));
    } catch (const std::exception &error) {
        return static_cast<int>(Fail(error.what()));
    }
}
