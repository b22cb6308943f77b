# What `cmake --install build --prefix P` puts below P: the program and its
# tools (tools/CMakeLists.txt), the client SDK (the library shared and
# static, the t4mi/ headers, pkg-config and CMake package files), the man
# pages and the docs. Everything lands below the prefix: the fixed-path
# assets outside it are the Debian package's business (cmake/package.cmake).

install(TARGETS t4mi_scrolltext RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# --- the client SDK ------------------------------------------------------------
set(T4MI_CMAKE_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/T4miClient)
set_target_properties(t4mi_client_static PROPERTIES EXPORT_NAME t4mi_client_static)
install(TARGETS t4mi_client t4mi_client_static EXPORT T4miClientTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
# include/t4mi/ holds the public headers and nothing else.
file(GLOB T4MI_PUBLIC_HEADERS CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/include/t4mi/*.h)
install(FILES ${T4MI_PUBLIC_HEADERS} ${PROJECT_BINARY_DIR}/include/t4mi/version.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/t4mi)

install(EXPORT T4miClientTargets NAMESPACE T4miClient:: DESTINATION ${T4MI_CMAKE_PACKAGE_DIR})
include(CMakePackageConfigHelpers)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/T4miClientConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_SOURCE_DIR}/cmake/T4miClientConfig.cmake ${PROJECT_BINARY_DIR}/T4miClientConfigVersion.cmake
  DESTINATION ${T4MI_CMAKE_PACKAGE_DIR})

# The pkg-config file names the prefix given at install time, which the
# build does not know: it is written straight into the prefix then.
install(CODE "
  set(T4MI_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  set(T4MI_PC_LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
  set(T4MI_PC_INCLUDEDIR \"${CMAKE_INSTALL_INCLUDEDIR}\")
  set(T4MI_PC_VERSION \"${PROJECT_VERSION}\")
  set(t4mi_pc \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig/t4mi-client.pc\")
  message(STATUS \"Installing: \${t4mi_pc}\")
  configure_file(\"${PROJECT_SOURCE_DIR}/cmake/t4mi-client.pc.in\" \"\${t4mi_pc}\" @ONLY)
  list(APPEND CMAKE_INSTALL_MANIFEST_FILES \"\${t4mi_pc}\")
")

# --- man pages -------------------------------------------------------------------
# Written in Markdown (docs/man/NAME.SECTION.md) and turned into roff by
# pandoc. Without pandoc the build goes on and installs no man pages.
find_program(T4MI_PANDOC pandoc)
find_program(T4MI_GZIP gzip)
set(T4MI_HAVE_MAN_PAGES OFF)
if(T4MI_PANDOC AND T4MI_GZIP)
  set(T4MI_HAVE_MAN_PAGES ON)
  file(GLOB T4MI_MAN_SOURCES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/man/*.md)
  set(T4MI_MAN_PAGES "")
  foreach(source ${T4MI_MAN_SOURCES})
    get_filename_component(page ${source} NAME_WLE)  # t4mi_render.1
    string(REGEX MATCH "[1-9]$" section ${page})
    set(out ${PROJECT_BINARY_DIR}/man/${page})
    add_custom_command(OUTPUT ${out}.gz
      COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/man
      COMMAND ${T4MI_PANDOC} --standalone --from markdown --to man
              --metadata "footer=t4mi-scrolltext ${PROJECT_VERSION}" --output ${out} ${source}
      COMMAND ${T4MI_GZIP} -9nf ${out}
      DEPENDS ${source} VERBATIM)
    list(APPEND T4MI_MAN_PAGES ${out}.gz)
    install(FILES ${out}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
  endforeach()
  add_custom_target(t4mi_man_pages ALL DEPENDS ${T4MI_MAN_PAGES})
else()
  message(STATUS "pandoc or gzip not found: the man pages are not built")
endif()

# --- docs ------------------------------------------------------------------------
set(T4MI_DOC_DIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/t4mi-scrolltext)
file(GLOB T4MI_DOCS CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/*.md)
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${T4MI_DOCS} DESTINATION ${T4MI_DOC_DIR})
install(FILES ${PROJECT_SOURCE_DIR}/examples/ticker.txt DESTINATION ${T4MI_DOC_DIR}/examples)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/client DESTINATION ${T4MI_DOC_DIR}/examples)
