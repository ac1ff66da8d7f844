# What `cmake --install` and `cpack -G DEB` deliver: the tools with their man pages, and
# for host applications the framework's libraries, headers, CMake package and pkg-config
# file. Included last, once every target exists.
include(CMakePackageConfigHelpers)

# The two targets a host application links: the whole framework, and the reference host on
# SQLite together with it.
add_library(vm_framework INTERFACE)
set_target_properties(vm_framework PROPERTIES EXPORT_NAME VMAttachments)
target_link_libraries(vm_framework INTERFACE vm_attachments)
add_library(VMAttachments::VMAttachments ALIAS vm_framework)
add_library(vm_sqlite_host INTERFACE)
set_target_properties(vm_sqlite_host PROPERTIES EXPORT_NAME SqliteHost)
target_link_libraries(vm_sqlite_host INTERFACE vm_host_sqlite vm_framework)
add_library(VMAttachments::SqliteHost ALIAS vm_sqlite_host)
install(TARGETS vm_framework vm_sqlite_host EXPORT VMAttachmentsTargets)

install(TARGETS vmattach vmcloudd RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
# Installed, not enabled: it needs /etc/vmcloudd/ filled in first (see the unit's comment).
install(FILES services/vmcloudd/vmcloudd.service DESTINATION lib/systemd/system COMPONENT tools)

# The CMake package.
if(BUILD_SHARED_LIBS)
  set(VM_PACKAGE_SHARED ON)
else()
  set(VM_PACKAGE_SHARED OFF)
endif()
set(vm_config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/VMAttachments)
install(EXPORT VMAttachmentsTargets NAMESPACE VMAttachments:: DESTINATION ${vm_config_dir}
        COMPONENT dev)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/VMAttachmentsConfig.cmake.in
  ${PROJECT_BINARY_DIR}/VMAttachmentsConfig.cmake INSTALL_DESTINATION ${vm_config_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/VMAttachmentsConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/VMAttachmentsConfig.cmake
              ${PROJECT_BINARY_DIR}/VMAttachmentsConfigVersion.cmake
        DESTINATION ${vm_config_dir} COMPONENT dev)

# The pkg-config file. Static libraries need their dependencies on the link line of a plain
# `pkg-config --libs`, so the static build lists them as Requires; the shared build keeps
# them private.
set(VM_PC_LIBS "-lvm_host_sqlite -lvm_attachments -lvm_bwcryptographer -lvm_cloudclient")
string(APPEND VM_PC_LIBS " -lvm_bwfoundation -lvm_host -lvm_platform")
set(vm_pc_deps "libcurl, openssl, sqlite3, spdlog, nlohmann_json, libplist-2.0, uuid")
if(BUILD_SHARED_LIBS)
  set(VM_PC_REQUIRES "fmt")
  set(VM_PC_REQUIRES_PRIVATE "${vm_pc_deps}")
else()
  set(VM_PC_REQUIRES "fmt, ${vm_pc_deps}")
  set(VM_PC_REQUIRES_PRIVATE "")
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/vmattachments.pc.in
               ${PROJECT_BINARY_DIR}/vmattachments.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vmattachments.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

# Man pages from each tool's --help. Sanitizer builds skip them (they would run instrumented
# tools during the build).
find_program(VM_HELP2MAN help2man)
if(VM_HELP2MAN AND VM_SANITIZE STREQUAL "")
  set(vm_man_pages "")
  foreach(page vmattach:1:tools/vmattach vmcloudd:8:services/vmcloudd)
    string(REPLACE ":" ";" page ${page})
    list(GET page 0 tool)
    list(GET page 1 section)
    set(out ${PROJECT_BINARY_DIR}/man/${tool}.${section})
    add_custom_command(OUTPUT ${out}
      COMMAND ${CMAKE_COMMAND} -DHELP2MAN=${VM_HELP2MAN} -DTOOL=$<TARGET_FILE:${tool}>
              -DNAME=${tool} -DSECTION=${section} -DVERSION=${PROJECT_VERSION} -DOUT=${out}
              -P ${PROJECT_SOURCE_DIR}/cmake/VmManPage.cmake
      DEPENDS ${tool} ${PROJECT_SOURCE_DIR}/cmake/VmManPage.cmake
      COMMENT "Generating ${tool}(${section})" VERBATIM)
    list(APPEND vm_man_pages ${out})
    install(FILES ${out} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT tools)
  endforeach()
  add_custom_target(man_pages ALL DEPENDS ${vm_man_pages})
elseif(VM_SANITIZE STREQUAL "")
  message(WARNING "help2man not found: no man pages (scripts/install-deps.sh build installs it)")
endif()

# Debian packages: the tools (runtime dependencies from the shared-library scan) and -dev.
set(CPACK_PACKAGE_NAME vmattachments)
set(CPACK_PACKAGE_VENDOR "VMAttachments developers")
set(CPACK_PACKAGE_CONTACT "VMAttachments developers <vmattachments@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Attachment storage: the vmattach tool and the vmcloudd service")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL tools dev)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME vmattachments)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
# The share schemes mount through rclone over FUSE and read sftp host keys with ssh-keyscan.
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "rclone, fuse3, openssh-client")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
    "Attachment storage tools\n vmattach stores and retrieves attachments; vmcloudd is the reference attachment service.")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME vmattachments-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DESCRIPTION
    "Attachment storage framework: development files\n Headers, libraries, CMake package and pkg-config file for host applications.")
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "libfmt-dev, libcurl4-openssl-dev, libssl-dev, libsqlite3-dev, libspdlog-dev, nlohmann-json3-dev, libboost-dev, libplist-dev, uuid-dev, pkg-config")
if(BUILD_SHARED_LIBS)
  # The shared libraries travel with the tools; -dev adds their link names.
  set(CPACK_COMPONENT_DEV_DEPENDS tools)
endif()
include(CPack)
