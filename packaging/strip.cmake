# Run by cpack after it has installed the packages' files into its staging
# folder and before it packs them: strips every ELF file as Debian's
# dh_strip does. Shared objects keep only the symbols of their dynamic
# table; executables lose all symbols. Both lose the debug information and
# the .comment and .note sections (the compiler's and linker's notes; the
# build ID in .note.gnu.build-id stays).
if(NOT CPACK_KR7_STRIP)
  message(FATAL_ERROR "no strip program configured (CMAKE_STRIP)")
endif()
file(GLOB_RECURSE files LIST_DIRECTORIES false "${CPACK_TEMPORARY_DIRECTORY}/*")
foreach(file IN LISTS files)
  if(IS_SYMLINK "${file}")
    continue()
  endif()
  file(READ "${file}" magic LIMIT 4 HEX)
  if(NOT magic STREQUAL "7f454c46")
    continue()
  endif()
  set(options --remove-section=.comment --remove-section=.note)
  if(file MATCHES "\\.so(\\.[0-9]+)*$")
    list(APPEND options --strip-unneeded)
  endif()
  execute_process(COMMAND "${CPACK_KR7_STRIP}" ${options} "${file}" RESULT_VARIABLE stripped)
  if(NOT stripped EQUAL 0)
    message(FATAL_ERROR "strip failed on ${file}")
  endif()
endforeach()
