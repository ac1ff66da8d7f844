# The source of truth for compiler options and the shape of every target.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

include(GNUInstallDirs)
set(VM_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/vmattachments)
# A shared build's tools find the framework's libraries beside them after installation.
if(BUILD_SHARED_LIBS)
  set(CMAKE_INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
endif()

set(VM_WARNINGS -Wall -Wextra -Wshadow -Wnon-virtual-dtor -Wpedantic -Werror)
# GCC 12 at -O3 (the bench preset) takes some std::string copies for overlapping memcpy
# calls (GCC bug 105651) and would fail the build on that false alarm.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  list(APPEND VM_WARNINGS -Wno-restrict)
endif()

set(VM_SANITIZE "" CACHE STRING "Sanitizers to build with: empty, address-undefined or thread")
set_property(CACHE VM_SANITIZE PROPERTY STRINGS "" address-undefined thread)
if(VM_SANITIZE STREQUAL "address-undefined")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(VM_SANITIZE STREQUAL "thread")
  # Boost.Asio uses fences that ThreadSanitizer cannot model; it warns about them at
  # compile time, and its run-time checks of the mutexes around them still apply.
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer -Wno-tsan)
  add_link_options(-fsanitize=thread)
elseif(NOT VM_SANITIZE STREQUAL "")
  message(FATAL_ERROR "VM_SANITIZE must be empty, address-undefined or thread")
endif()

# vm_library(NAME [PACKAGE] SOURCES ... DEPS ... PRIVATE_DEPS ...)
# One library target per folder. Public headers are included by their path from the
# repository root ("platform/Error.h"), so the folder a header lives in is visible at
# every use. PACKAGE marks a library of the installed framework: it follows
# BUILD_SHARED_LIBS, carries a SONAME from the project version, is installed and exported,
# and installs the headers of its folder. The other libraries (tools, tests, benchmarks)
# are static and stay in the build tree.
function(vm_library name)
  cmake_parse_arguments(ARG "PACKAGE" "" "SOURCES;DEPS;PRIVATE_DEPS" ${ARGN})
  if(ARG_PACKAGE)
    add_library(${name} ${ARG_SOURCES})
    target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
                                              $<INSTALL_INTERFACE:${VM_INSTALL_INCLUDEDIR}>)
    target_compile_features(${name} PUBLIC cxx_std_20)
    set_target_properties(${name} PROPERTIES VERSION ${PROJECT_VERSION}
                                             SOVERSION ${PROJECT_VERSION_MAJOR})
    install(TARGETS ${name} EXPORT VMAttachmentsTargets
      ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
      LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT tools NAMELINK_COMPONENT dev)
    vm_install_headers()
  else()
    add_library(${name} STATIC ${ARG_SOURCES})
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  endif()
  target_compile_options(${name} PRIVATE ${VM_WARNINGS})
  target_link_libraries(${name} PUBLIC ${ARG_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})
endfunction()

# vm_install_headers()
# Installs the headers of the calling folder (not its subfolders, not internal/) under
# include/vmattachments/ at the folder's path from the repository root, so that an
# installed header includes another exactly as it does in the source tree.
function(vm_install_headers)
  file(GLOB headers CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
  file(RELATIVE_PATH folder ${PROJECT_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR})
  install(FILES ${headers} DESTINATION ${VM_INSTALL_INCLUDEDIR}/${folder} COMPONENT dev)
  set_property(GLOBAL APPEND PROPERTY VM_PUBLIC_HEADERS ${headers})
endfunction()

# vm_executable(NAME SOURCES ... DEPS ...)
function(vm_executable name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_compile_options(${name} PRIVATE ${VM_WARNINGS})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS})
endfunction()

# vm_test(NAME SOURCES ... DEPS ... [LABELS ...])
# One GoogleTest executable, registered with CTest as one test so that fixtures that
# start servers start them once per executable.
function(vm_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;DEPS;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_compile_options(${name} PRIVATE ${VM_WARNINGS})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} vm_test_support GTest::gtest GTest::gmock)
  add_test(NAME ${name} COMMAND ${name})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 600)
  endif()
  set_tests_properties(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT} LABELS "${ARG_LABELS}")
endfunction()
