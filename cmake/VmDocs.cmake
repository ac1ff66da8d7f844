# `cmake --build BUILD --target docs`: API documentation of the installed headers, in
# BUILD/docs/html. Any Doxygen warning fails the target.
find_package(Doxygen QUIET)
if(DOXYGEN_FOUND)
  get_property(vm_public_headers GLOBAL PROPERTY VM_PUBLIC_HEADERS)
  set(DOXYGEN_PROJECT_NAME VMAttachments)
  set(DOXYGEN_PROJECT_NUMBER ${PROJECT_VERSION})
  set(DOXYGEN_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/docs)
  set(DOXYGEN_STRIP_FROM_PATH ${PROJECT_SOURCE_DIR})
  set(DOXYGEN_STRIP_FROM_INC_PATH ${PROJECT_SOURCE_DIR})
  set(DOXYGEN_FULL_PATH_NAMES YES)
  set(DOXYGEN_EXTRACT_ALL YES)
  set(DOXYGEN_GENERATE_LATEX NO)
  set(DOXYGEN_QUIET YES)
  set(DOXYGEN_WARN_AS_ERROR FAIL_ON_WARNINGS)
  doxygen_add_docs(docs ${vm_public_headers}
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
    COMMENT "API documentation of the installed headers")
else()
  add_custom_target(docs
    COMMAND ${CMAKE_COMMAND} -E echo "docs: Doxygen is missing (scripts/install-deps.sh docs)"
    COMMAND ${CMAKE_COMMAND} -E false)
endif()
