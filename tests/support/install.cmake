# The temporary installation that tests and benchmarks share; knows no test framework.
include_guard(GLOBAL)
add_library(tarn_temp_install STATIC ${CMAKE_CURRENT_LIST_DIR}/install.cpp)
target_link_libraries(tarn_temp_install PUBLIC SQLite::SQLite3 PRIVATE tarn_warnings tarn_settings)
