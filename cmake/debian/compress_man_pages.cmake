# Run by cpack once every package's staging tree is filled, before the Debian
# packages are built from them: Debian ships man pages compressed with
# `gzip -9n` (no name, no time stamp, so the package is reproducible).
file(GLOB_RECURSE staged LIST_DIRECTORIES false "${CPACK_TEMPORARY_DIRECTORY}/*")
foreach(file IN LISTS staged)
  if(NOT file MATCHES "/share/man/man[1-9]/[^/]+\\.[1-9]$")
    continue()
  endif()
  execute_process(COMMAND gzip -9nf "${file}" RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "cannot compress the man page ${file}")
  endif()
endforeach()
