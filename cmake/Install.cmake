# The install tree. The library takes its own folder as "@", so "@/../config" is <prefix>/config.
include(CMakePackageConfigHelpers)

set(tarn_targets tarncache)
if(TARN_BUNDLED_PLATFORM)
  list(APPEND tarn_targets tarncore nubbase nubcl_ev)
endif()
install(TARGETS ${tarn_targets} EXPORT tarncacheTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES interface/tarncache.h interface/tarncache_types.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

configure_file(packaging/tarncache.pc.in ${CMAKE_BINARY_DIR}/tarncache.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/tarncache.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

configure_package_config_file(packaging/tarncacheConfig.cmake.in ${CMAKE_BINARY_DIR}/tarncacheConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tarncache)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/tarncacheConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(EXPORT tarncacheTargets NAMESPACE tarncache:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tarncache)
install(FILES ${CMAKE_BINARY_DIR}/tarncacheConfig.cmake ${CMAKE_BINARY_DIR}/tarncacheConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tarncache)

# The configuration holds running state: one that is there stays.
install(CODE "
  set(config \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/config/tarncfg.ini\")
  if(EXISTS \"\${config}\")
    message(STATUS \"Kept: \${config}\")
  else()
    file(INSTALL DESTINATION \"\${CMAKE_INSTALL_PREFIX}/config\" TYPE FILE
      FILES \"${PROJECT_SOURCE_DIR}/config/tarncfg.ini\")
  endif()")
install(DIRECTORY DESTINATION engine)
# The library itself makes cache/ without a search bit, which serves root alone.
install(DIRECTORY DESTINATION engine/cache DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
install(DIRECTORY DESTINATION engine/kelmorehash DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
