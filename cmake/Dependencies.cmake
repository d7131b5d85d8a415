# Everything that any folder needs, found once. It comes from the Debian packages in packaging/debian-packages.txt;
# nothing is downloaded.
find_package(PkgConfig REQUIRED)

# the library
find_package(Threads REQUIRED)
find_package(SQLite3 3.8.6 REQUIRED)
pkg_check_modules(SODIUM REQUIRED IMPORTED_TARGET libsodium)

# support/, the base services, the program and the benchmarks
pkg_check_modules(NETTLE REQUIRED IMPORTED_TARGET nettle)
if(TARN_BUNDLED_PLATFORM OR TARN_BUILD_TESTS)
  find_package(ZLIB REQUIRED)
endif()

# the base services: our own, or those of the product
if(TARN_BUNDLED_PLATFORM)
  find_path(SIMPLEINI_INCLUDE_DIR SimpleIni.h REQUIRED)
  add_library(SimpleIni::SimpleIni INTERFACE IMPORTED)
  set_target_properties(SimpleIni::SimpleIni PROPERTIES INTERFACE_INCLUDE_DIRECTORIES "${SIMPLEINI_INCLUDE_DIR}")
else()
  foreach(name IN ITEMS tarncore nubbase nubcl_ev)
    find_library(TARN_${name}_LIBRARY NAMES ${name} REQUIRED DOC "The product's own lib${name}")
    add_library(${name} SHARED IMPORTED) # SHARED: the linker then finds it behind libtarncache too
    set_target_properties(${name} PROPERTIES
      IMPORTED_LOCATION "${TARN_${name}_LIBRARY}"
      INTERFACE_INCLUDE_DIRECTORIES "${PROJECT_SOURCE_DIR}"
      IMPORTED_NO_SYSTEM TRUE) # our own headers keep their warnings
  endforeach()
endif()

if(TARN_BUILD_TOOLS)
  pkg_check_modules(CLAMAV REQUIRED IMPORTED_TARGET libclamav>=1.0)
  find_package(CLI11 REQUIRED)
  find_package(nlohmann_json REQUIRED)
endif()
if(TARN_BUILD_TESTS)
  find_package(GTest REQUIRED)
  if(TARN_BUILD_TOOLS)
    find_package(Python3 REQUIRED COMPONENTS Interpreter)
  endif()
endif()
if(TARN_BUILD_BENCH)
  find_package(benchmark REQUIRED)
  pkg_check_modules(LMDB REQUIRED IMPORTED_TARGET lmdb)
endif()
