# Run by cpack on the staged packages: what Debian expects beside the files themselves, and without the paths that only a
# tree that may be moved needs.

# found(RESULT arguments of find ...)
function(found result)
  execute_process(COMMAND find ${CPACK_TEMPORARY_DIRECTORY} ${ARGN} OUTPUT_VARIABLE text COMMAND_ERROR_IS_FATAL ANY)
  string(REGEX REPLACE "\n$" "" text "${text}")
  string(REPLACE "\n" ";" text "${text}")
  set(${result} "${text}" PARENT_SCOPE)
endfunction()

found(programs -type f ( -name *.so.* -o -path */usr/sbin/* -o -path */usr/libexec/* ))
foreach(program ${programs})
  file(RPATH_REMOVE FILE ${program})
endforeach()
found(pages -type f -path */usr/share/man/man* -not -name *.gz)
foreach(page ${pages})
  execute_process(COMMAND gzip -9n ${page} COMMAND_ERROR_IS_FATAL ANY)
endforeach()

# An archive is stripped of what it was debugged with; its symbols are what it is for.
found(archives -type f -name *.a)
foreach(archive ${archives})
  execute_process(COMMAND strip --strip-debug --enable-deterministic-archives ${archive} COMMAND_ERROR_IS_FATAL ANY)
endforeach()

set(VERSION ${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})
execute_process(COMMAND git -C ${CPACK_ZEL_SOURCE} log -1 --format=%cD OUTPUT_VARIABLE DATE
  OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
if(NOT DATE)  # not a checkout
  execute_process(COMMAND date -R OUTPUT_VARIABLE DATE OUTPUT_STRIP_TRAILING_WHITESPACE)
endif()
found(packages -mindepth 1 -maxdepth 1 -type d)
foreach(staged ${packages})
  get_filename_component(PACKAGE ${staged} NAME)
  set(doc ${staged}/usr/share/doc/${PACKAGE})
  configure_file(${CPACK_ZEL_SOURCE}/packaging/debian/copyright ${doc}/copyright COPYONLY)
  configure_file(${CPACK_ZEL_SOURCE}/packaging/debian/changelog.in ${doc}/changelog.Debian @ONLY)
  execute_process(COMMAND gzip -9nf ${doc}/changelog.Debian COMMAND_ERROR_IS_FATAL ANY)
endforeach()
