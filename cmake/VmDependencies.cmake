# Every external library, found once. The Debian packages that provide them are listed in
# scripts/install-deps.sh.

set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(CURL REQUIRED)
find_package(OpenSSL REQUIRED)
find_package(SQLite3 REQUIRED)
find_package(PostgreSQL REQUIRED)
find_package(nlohmann_json 3.10 REQUIRED)
find_package(fmt REQUIRED)
find_package(spdlog REQUIRED)
find_package(Boost 1.74 REQUIRED)
find_package(CLI11 REQUIRED)
pkg_check_modules(PLIST REQUIRED IMPORTED_TARGET libplist-2.0)
pkg_check_modules(UUID REQUIRED IMPORTED_TARGET uuid)
# vmcloudd tells systemd when it is ready (sd_notify; a no-op outside systemd).
pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd)
# Debian builds cpp-httplib as a shared library (the header only declares); its pkg-config
# file carries the feature macros the library was built with, which must match ours. Only
# the tests and benchmarks use it.
if(VM_BUILD_TESTS OR VM_BUILD_BENCHMARKS)
  pkg_check_modules(HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)
  add_library(vm_httplib INTERFACE)
  target_link_libraries(vm_httplib INTERFACE PkgConfig::HTTPLIB OpenSSL::SSL OpenSSL::Crypto
                                             Threads::Threads)
endif()

if(VM_BUILD_TESTS)
  find_package(GTest REQUIRED)
endif()
if(VM_BUILD_BENCHMARKS)
  find_package(benchmark REQUIRED)
endif()
