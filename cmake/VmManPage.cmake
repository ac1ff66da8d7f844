# cmake -DHELP2MAN=... -DTOOL=... -DNAME=... -DSECTION=... -DVERSION=... -DOUT=... -P VmManPage.cmake
# Writes a tool's man page from its --help, naming the tool as users call it rather than by
# its path in the build folder.
execute_process(
  COMMAND ${HELP2MAN} --no-info --no-discard-stderr --section=${SECTION}
          --version-string=${VERSION} --output=${OUT}.tmp ${TOOL}
  RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "help2man failed for ${TOOL}")
endif()
file(READ ${OUT}.tmp page)
string(REPLACE "${TOOL}" "${NAME}" page "${page}")
file(WRITE ${OUT} "${page}")
file(REMOVE ${OUT}.tmp)
