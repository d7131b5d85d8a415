# libtarncache: the layers as explicit lists, one shared library.
add_library(tarncache SHARED
  util/dbconfig.cpp
  util/dbfileutil.cpp
  util/file_identity.cpp
  util/file_system_kind.cpp
  util/file_systems.cpp
  util/identity_code.cpp
  util/medium.cpp
  util/mount_table.cpp
  util/open_file.cpp
  util/walk_targets.cpp
  tables/busy_deadline.cpp
  tables/cachetable.cpp
  tables/cachetable_bulk.cpp
  tables/failure_note.cpp
  tables/guarded_vfs.cpp
  tables/identitytable.cpp
  tables/schema.cpp
  tables/statement.cpp
  tables/statement_pool.cpp
  tables/versiontable.cpp
  tables/vsdesctable.cpp
  agent/batch.cpp
  agent/check.cpp
  agent/cleaning.cpp
  agent/compaction.cpp
  agent/connection.cpp
  agent/damage_proof.cpp
  agent/database_file.cpp
  agent/database_healing.cpp
  agent/database_health.cpp
  agent/database_repair.cpp
  agent/dbagent.cpp
  agent/deletions.cpp
  agent/engine_flags.cpp
  agent/forwarding_vfs.cpp
  agent/checked_vfs.cpp
  agent/identity.cpp
  agent/lookup_add.cpp
  agent/markers.cpp
  agent/own_reading.cpp
  agent/questions.cpp
  agent/reverse_lookup.cpp
  agent/scan_bracket.cpp
  agent/schema_audit.cpp
  agent/set_aside.cpp
  agent/start_gate.cpp
  agent/statistics.cpp
  agent/transactions.cpp
  agent/update_cache.cpp
  agent/update_list.cpp
  agent/withdrawals.cpp
  agent/write_queue.cpp
  agent/writer.cpp
  interface/tarncache.cpp
  interface/hash_to_path.cpp
  interface/housekeeping.cpp
  interface/scan_bracket.cpp
  interface/single_file.cpp)
target_compile_definitions(tarncache PRIVATE TARN_VERSION="${PROJECT_VERSION}")
target_link_libraries(tarncache
  PRIVATE tarn_warnings tarn_settings tarn_formats tarn_support tarncore nubbase nubcl_ev SQLite::SQLite3 PkgConfig::SODIUM Threads::Threads)
target_include_directories(tarncache INTERFACE
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/interface> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
set_target_properties(tarncache PROPERTIES
  VERSION ${PROJECT_VERSION} SOVERSION 1 INSTALL_RPATH "$ORIGIN" BUILD_WITH_INSTALL_RPATH ON EXPORT_NAME tarncache)
target_link_options(tarncache PRIVATE ${TARN_STAY_LOADED} -Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/tarncache.map)
set_property(TARGET tarncache APPEND PROPERTY LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/tarncache.map)
# An undefined symbol is a build error, not a surprise in the host's process.
if(NOT TARN_SANITIZE)
  target_link_options(tarncache PRIVATE -Wl,-z,defs)
endif()
