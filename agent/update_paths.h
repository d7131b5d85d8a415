// update_paths.h - the files that an engine updater leaves for the cache; "@" is the installation directory.
#ifndef TARN_AGENT_UPDATE_PATHS_H
#define TARN_AGENT_UPDATE_PATHS_H

constexpr char kEngineMarkerName[] = "clean_engine_flag";
constexpr char kEngineMarkerPath[] = "@/../engine/clean_engine_flag";
constexpr char kHashMarkerName[] = "clean_engine_hash_flag";
constexpr char kHashMarkerPath[] = "@/../engine/clean_engine_hash_flag";
constexpr char kUpdateCachePath[] = "@/../engine/kelmorehash/update_cache.dat";

#endif
