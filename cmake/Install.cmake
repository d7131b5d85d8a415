# The install tree. The library takes its own folder as "@"; configuration and data lie in "@/..", which is the prefix
# as long as CMAKE_INSTALL_LIBDIR is a single name.
include(CMakePackageConfigHelpers)
cmake_path(SET tarn_config_folder NORMALIZE "${CMAKE_INSTALL_LIBDIR}/../config")
cmake_path(SET tarn_engine_folder NORMALIZE "${CMAKE_INSTALL_LIBDIR}/../engine")

set(tarn_targets tarncache)
if(TARN_BUNDLED_PLATFORM)
  list(APPEND tarn_targets tarncore nubbase nubcl_ev)
endif()
install(TARGETS ${tarn_targets} EXPORT tarncacheTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES interface/tarncache.h interface/tarncache_types.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# For products that bring base services of their own; in a folder where they replace no header of the product.
install(FILES platform/tarncore.h platform/nubbase.h platform/nubcl_ev.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tarncache)

# pkg-config finds everything from where its file lies, so the tree may be moved.
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig
  OUTPUT_VARIABLE tarn_pc_to_prefix)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_LIBDIR BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX}
  OUTPUT_VARIABLE tarn_prefix_to_libdir)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_INCLUDEDIR BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX}
  OUTPUT_VARIABLE tarn_prefix_to_includedir)
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
  set(folder \"${tarn_config_folder}\")
  cmake_path(ABSOLUTE_PATH folder BASE_DIRECTORY \"\${CMAKE_INSTALL_PREFIX}\")
  if(EXISTS \"\$ENV{DESTDIR}\${folder}/tarncfg.ini\")
    message(STATUS \"Kept: \$ENV{DESTDIR}\${folder}/tarncfg.ini\")
  else()
    file(INSTALL DESTINATION \"\${folder}\" TYPE FILE FILES \"${PROJECT_SOURCE_DIR}/config/tarncfg.ini\")
  endif()")
install(DIRECTORY DESTINATION ${tarn_engine_folder})
# The library itself makes cache/ without a search bit, which serves root alone.
install(DIRECTORY DESTINATION ${tarn_engine_folder}/cache DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
install(DIRECTORY DESTINATION ${tarn_engine_folder}/kelmorehash
  DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
