// installation.h - the files in which library, program and updaters meet.
//
// The library calls the folder that it lies in "@", so each path begins "@/../"; the rest counts from the installation
// folder.
#ifndef TARN_FORMATS_INSTALLATION_H
#define TARN_FORMATS_INSTALLATION_H

#include <cstddef>
#include <string_view>

constexpr char kConfigPath[] = "@/../config/tarncfg.ini";
constexpr char kBusinessValuesPath[] = "@/../config/business.ini";
constexpr char kDatabaseDir[] = "@/../engine/cache/";
constexpr char kDatabaseName[] = "morcache.db"; // unless the configuration names another

// What an updater leaves for the next start of the cache. The markers' existence is the message.
constexpr char kEngineMarkerName[] = "clean_engine_flag";
constexpr char kEngineMarkerPath[] = "@/../engine/clean_engine_flag";
constexpr char kHashMarkerName[] = "clean_engine_hash_flag";
constexpr char kHashMarkerPath[] = "@/../engine/clean_engine_hash_flag";
constexpr char kUpdateCachePath[] = "@/../engine/kelmorehash/update_cache.dat";

// What the cache has set aside and not carried out yet, with the key "protect".
constexpr char kEngineTakenPath[] = "@/../engine/clean_engine_flag.taken";
constexpr char kListTakenPath[] = "@/../engine/kelmorehash/update_cache.taken";

// One of these paths as it counts from the installation folder: "config/tarncfg.ini".
template <size_t nSize> consteval const char *FromRoot(const char (&szPath)[nSize]) {
    constexpr std::string_view kToRoot = "@/../";
    return std::string_view(szPath).starts_with(kToRoot) ? szPath + kToRoot.size() : throw "not below the root";
}

// The folders of an installation, counted from its own.
constexpr char kLibraryFolder[] = "lib";
constexpr char kConfigFolder[] = "config";
constexpr char kEngineFolder[] = "engine";
constexpr char kCacheFolder[] = "engine/cache";
constexpr char kUpdateFolder[] = "engine/kelmorehash";

// The program's own files, counted from the installation folder too.
constexpr char kSignatureIdFile[] = "engine/signatures.id";
constexpr char kScanLockFile[] = "engine/scan.lock";     // held by the scan that uses the cache
constexpr char kUpdateLockFile[] = "engine/update.lock"; // held while markers are left or consumed

#endif
