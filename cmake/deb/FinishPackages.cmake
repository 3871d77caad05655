# Run by CPack after it made the Debian packages (CPACK_POST_BUILD_SCRIPTS); puts right two
# things it does otherwise than Debian's tools, then builds each package anew with dpkg-deb:
#  - CPack gives every package with a shared library in /usr/lib a postinst and a postrm that
#    call ldconfig. Debian's packages leave that to the ldconfig trigger, which each runtime
#    package activates (triggers), and lintian warns about the calls: the two scripts go where
#    they do nothing else.
#  - CPack's Installed-Size counts a symbolic link as the file it points to and a folder as
#    4 KiB, twice the real size for a library. It becomes what dpkg-gencontrol computes: each
#    file's size rounded up to KiB, and 1 KiB for each link and folder.
find_program(DPKG_DEB dpkg-deb REQUIRED)
foreach(deb IN LISTS CPACK_PACKAGE_FILES)
  set(tree ${deb}.tree)
  file(REMOVE_RECURSE ${tree})
  execute_process(COMMAND ${DPKG_DEB} -R ${deb} ${tree} COMMAND_ERROR_IS_FATAL ANY)

  foreach(script postinst postrm)
    set(path ${tree}/DEBIAN/${script})
    if(EXISTS ${path})
      file(STRINGS ${path} lines)
      list(FILTER lines EXCLUDE REGEX "^[ \t]*(#.*|set -e|if .*|fi|ldconfig)?[ \t]*$")
      if(NOT lines)
        file(REMOVE ${path})
      endif()
    endif()
  endforeach()

  file(GLOB_RECURSE entries RELATIVE ${tree} LIST_DIRECTORIES true ${tree}/*)
  list(FILTER entries EXCLUDE REGEX "^DEBIAN(/|$)")
  set(kib 1) # the package's root folder
  foreach(entry IN LISTS entries)
    set(entry ${tree}/${entry})
    if(IS_SYMLINK ${entry} OR IS_DIRECTORY ${entry})
      math(EXPR kib "${kib} + 1")
    else()
      file(SIZE ${entry} bytes)
      math(EXPR kib "${kib} + (${bytes} + 1023) / 1024")
    endif()
  endforeach()
  file(READ ${tree}/DEBIAN/control control)
  string(REGEX REPLACE "\nInstalled-Size: [0-9]+\n" "\nInstalled-Size: ${kib}\n" control
                       "${control}")
  file(WRITE ${tree}/DEBIAN/control "${control}")

  execute_process(COMMAND ${DPKG_DEB} --root-owner-group --build ${tree} ${deb} OUTPUT_QUIET
                  COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE ${tree})
endforeach()
