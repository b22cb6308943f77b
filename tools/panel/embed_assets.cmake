# Writes OUT: a C++ file defining panel_assets() with the bytes of the page's
# files. Each file becomes a raw string literal; the delimiter is one that no
# asset contains (checked here).
# ASSETS: the entries file|URL|type, separated by commas.
string(REPLACE "," ";" ASSETS "${ASSETS}")
set(delim "t4mi_asset")
set(body "")
foreach(entry IN LISTS ASSETS)
  string(REPLACE "|" ";" parts "${entry}")
  list(GET parts 0 file)
  list(GET parts 1 url)
  list(GET parts 2 type)
  file(READ "${DIR}/${file}" text)
  string(FIND "${text}" ")${delim}\"" clash)
  if(NOT clash EQUAL -1)
    message(FATAL_ERROR "${file} contains the raw-string delimiter")
  endif()
  string(APPEND body "    {\"${url}\", \"${type}\", R\"${delim}(${text})${delim}\"},\n")
endforeach()
file(WRITE "${OUT}.tmp" "// Generated from tools/panel/assets by embed_assets.cmake. Do not edit.\n#include \"panel_assets.h\"\n\nstd::span<const panel_asset> panel_assets()\n{\n    static const panel_asset assets[] = {\n${body}    };\n    return assets;\n}\n")
file(COPY_FILE "${OUT}.tmp" "${OUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUT}.tmp")
