# Run by cpack (CPACK_PRE_BUILD_SCRIPTS) on the staging tree of the Debian
# package: the packages of the shared libraries that the program, the tools
# and libt4mi_client link, as dpkg-shlibdeps names them, join the fixed
# Depends. (CPack's own SHLIBDEPS would run `file` on each of the 1,400
# emoji images to find the few ELF files; we know them.)
set(root ${CPACK_TEMPORARY_INSTALL_DIRECTORY})
file(GLOB elf_files ${root}/usr/bin/t4mi_* ${root}/usr/lib/*/libt4mi_client.so.*.*.* ${root}/usr/lib/libt4mi_client.so.*.*.*)
list(FILTER elf_files EXCLUDE REGEX "\\.so\\.[0-9]+$")
# dpkg-shlibdeps wants to run beside a debian/control.
set(work ${CPACK_TEMPORARY_INSTALL_DIRECTORY}.shlibdeps)
file(REMOVE_RECURSE ${work})
file(WRITE ${work}/debian/control "")
execute_process(COMMAND dpkg-shlibdeps -O ${elf_files}
  WORKING_DIRECTORY ${work} OUTPUT_VARIABLE shlibdeps RESULT_VARIABLE status ERROR_VARIABLE errors
  OUTPUT_STRIP_TRAILING_WHITESPACE)
file(REMOVE_RECURSE ${work})
if(NOT status EQUAL 0 OR NOT shlibdeps MATCHES "^shlibs:Depends=(.+)$")
  message(FATAL_ERROR "dpkg-shlibdeps failed (${status}): ${errors}")
endif()
set(CPACK_DEBIAN_PACKAGE_DEPENDS "${CMAKE_MATCH_1}, ${CPACK_DEBIAN_PACKAGE_DEPENDS}")
message(STATUS "Depends: ${CPACK_DEBIAN_PACKAGE_DEPENDS}")
