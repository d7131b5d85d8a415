# The quality bar: one target for warnings, one for language settings and sanitizers. Every target links both.

add_library(tarn_warnings INTERFACE)
target_compile_options(tarn_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wformat=2 -Wundef -Wcast-align
  $<$<BOOL:${TARN_WERROR}>:-Werror>
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual -Wold-style-cast>
  $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-Wthread-safety>
  # g++ 12 sees overlapping copies in std::string at -O3 where there are none (its bug 105651).
  $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wno-restrict>)

add_library(tarn_settings INTERFACE)
target_compile_features(tarn_settings INTERFACE cxx_std_20 c_std_11)
target_include_directories(tarn_settings INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_definitions(tarn_settings INTERFACE _FILE_OFFSET_BITS=64
  $<$<CONFIG:Release>:_FORTIFY_SOURCE=2>)
target_compile_options(tarn_settings INTERFACE -fstack-protector-strong)
if(TARN_SANITIZE)
  target_compile_options(tarn_settings INTERFACE -fsanitize=${TARN_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(tarn_settings INTERFACE -fsanitize=${TARN_SANITIZE})
else()
  target_link_options(tarn_settings INTERFACE -Wl,-z,relro,-z,now)
endif()

# For the shared libraries: one that a host closes stays where it is. A thread of ours may be running in it, and handlers
# of fork() and of a thread's end point into it.
set(TARN_STAY_LOADED -Wl,-z,nodelete)

set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
