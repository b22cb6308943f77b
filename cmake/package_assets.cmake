# Run by cpack (CPACK_PRE_BUILD_SCRIPTS) on the staging tree of the Debian
# package, after `cmake --install` filled it: adds the fixed-path assets that
# the program reads (src/platform/fixed_paths.h), the same ones that
# scripts/setup.sh puts in place on a development machine. dpkg then owns
# every one of them, so removing the package takes them away again.
#
# The emoji images are rendered here, once, from Debian's Noto Color Emoji,
# and shipped as files rather than made by a postinst: the package installs
# in no time, needs neither the 10 MB font nor the tool at run time, and
# dpkg knows every image (dpkg -S, clean removal).
include(${CPACK_T4MI_TOOLS_FILE})  # T4MI_EMOJI_TOOL

set(root ${CPACK_TEMPORARY_INSTALL_DIRECTORY})
set(fonts ${root}/usr/share/tevrin4/fonts)
set(emoji_font /usr/share/fonts/truetype/noto/NotoColorEmoji.ttf)
if(NOT EXISTS ${emoji_font})
  message(FATAL_ERROR "${emoji_font} is missing: install fonts-noto-color-emoji (scripts/setup.sh does)")
endif()

file(MAKE_DIRECTORY ${fonts}/emoji ${root}/mnt/main/tv/fonts ${root}/usr/lib/tmpfiles.d)
# The two faces link to Debian's fonts (the package depends on them), so a
# font upgrade reaches the program.
file(CREATE_LINK ../../fonts/truetype/liberation/LiberationSans-Regular.ttf
  ${fonts}/liberation_sans.ttf SYMBOLIC)
file(CREATE_LINK ../../fonts/truetype/ancient-scripts/Symbola_hint.ttf
  ${fonts}/TwitterColorEmoji-SVGinOT.ttf SYMBOLIC)
execute_process(COMMAND ${T4MI_EMOJI_TOOL} ${emoji_font} ${fonts}/emoji
  OUTPUT_QUIET RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "make_emoji_pngs failed (${status})")
endif()
# /run is emptied at every boot: systemd-tmpfiles makes the weather
# directory again from this (the postinst makes it right away).
file(COPY_FILE ${CPACK_T4MI_SOURCE_DIR}/cmake/debian/t4mi-scrolltext.tmpfiles.conf
  ${root}/usr/lib/tmpfiles.d/t4mi-scrolltext.conf)
