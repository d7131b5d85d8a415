# Everything comes from the Debian packages listed in packaging/debian-packages.txt; nothing is downloaded.
find_package(Threads REQUIRED)
find_package(SQLite3 3.8.6 REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(NETTLE REQUIRED IMPORTED_TARGET nettle)
