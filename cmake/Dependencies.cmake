# Every third-party library, looked up once. A target that hides one links it PRIVATE.
find_package(Threads REQUIRED)
find_package(fmt REQUIRED)
find_package(EXPAT REQUIRED)
find_package(SQLite3 REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(NETTLE REQUIRED IMPORTED_TARGET nettle)
find_package(GTest REQUIRED)
