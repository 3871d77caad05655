# Debian packages, laid out as Debian's library policy has them: `cpack` in a build folder
# configured for /usr (the deb preset: cmake --workflow --preset deb) makes one runtime package
# per shared library, named after its SONAME as lintian expects (libHXLCore.so.0 in
# libhxlcore0, libtcmalloc_virtualmm.so.0 in libtcmalloc-virtualmm0), and
# libhxlvirtualmemmgmt-dev with what building against them takes. Each has a copyright file and
# the Debian change log in /usr/share/doc/<package>/; each runtime package has a shlibs file and
# activates the ldconfig trigger. A static build packages only the -dev part.
find_program(HXL_GZIP gzip)
if(NOT HXL_GZIP)
  message(STATUS "gzip not found: no Debian packages")
  return()
endif()

set(HXL_PACKAGE_MAINTAINER "HXLVirtualMemMgmt maintainers <maintainers@hxlvirtualmemmgmt.invalid>"
    CACHE STRING "Maintainer field of the Debian packages")
set(HXL_DEB_DIR ${PROJECT_SOURCE_DIR}/cmake/deb)
set(HXL_DEB_BUILD_DIR ${PROJECT_BINARY_DIR}/deb)

# The copyright file in Debian's machine-readable form, with the licence from LICENSE.
file(READ ${PROJECT_SOURCE_DIR}/LICENSE license)
string(REGEX MATCH "Copyright \\(c\\) ([^\n]*)" found "${license}")
set(HXL_COPYRIGHT "${CMAKE_MATCH_1}")
string(REGEX REPLACE "^.*Copyright \\(c\\) [^\n]*\n+" "" license "${license}")
string(STRIP "${license}" license)
string(REPLACE "\n\n" "\n.\n" license "${license}")
string(REPLACE "\n" "\n " HXL_LICENSE_BODY " ${license}")
configure_file(${HXL_DEB_DIR}/copyright.in ${HXL_DEB_BUILD_DIR}/copyright @ONLY)
# The change log compressed as Debian wants it: gzip -9n, no name and no time stamp inside.
configure_file(${HXL_DEB_DIR}/changelog ${HXL_DEB_BUILD_DIR}/changelog COPYONLY)
execute_process(COMMAND ${HXL_GZIP} -9nf ${HXL_DEB_BUILD_DIR}/changelog COMMAND_ERROR_IS_FATAL ANY)

set(HXL_DEB_ABOUT
    "HXLVirtualMemMgmt is a library for programs whose working data is larger than
what they want resident. Its heart is a paged store: blocks of any size, named
by 64-bit offsets instead of addresses, mapped while a program works on them
and paged out to a private file when nobody holds them. On the store stand
typed nodes, ordered trees of them, string handles and a byte-stream file
with gzip compression; beside it, three heap allocators.
")
# component: package name, section, synopsis, and what the package holds.
set(HXL_DEB_HXLCore "platform core of HXLVirtualMemMgmt: exceptions, strings, files"
    "This package holds HXLCore: the exception classes and their macros, a lock,
UTF-16 strings, CRC-32, the temporary directory and a POSIX file.")
set(HXL_DEB_tcmalloc_virtualmm "paging engine of the HXLVirtualMemMgmt store"
    "This package holds tcmalloc_virtualmm, the paging engine under the store: size
classes, spans, a clock of resident spans and the fingerprinted page file.")
set(HXL_DEB_ZOJStreams "gzip output stream of HXLVirtualMemMgmt"
    "This package holds ZOJStreams: an output stream interface and a gzip
compressor on zlib that feeds another stream.")
set(HXL_DEB_HXLVirtualMemMgmt "paged store of offset-named blocks, with nodes, strings and files"
    "This package holds the library itself: the memory manager, nodes and trees,
string handles, the paged file and the heap pools.")
set(HXL_DEB_dev "paged store of offset-named blocks - development files"
    "This package holds the headers, the CMake package (find_package
HXLVirtualMemMgmt) and the pkg-config file (hxlvirtualmemmgmt).")

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PACKAGE_NAME hxlvirtualmemmgmt)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE hxlvirtualmemmgmt)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${HXL_PACKAGE_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# The -dev package needs the runtime packages of exactly its version, and the library those of
# the platform libraries.
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_COMPONENT_HXLVIRTUALMEMMGMT_DEPENDS HXLCore tcmalloc_virtualmm ZOJStreams)
if(BUILD_SHARED_LIBS)
  set(CPACK_COMPONENTS_ALL ${HXL_LIBRARIES} dev)
  set(CPACK_COMPONENT_DEV_DEPENDS ${HXL_LIBRARIES})
else()
  set(CPACK_COMPONENTS_ALL dev)
endif()

# Dependencies on the system's libraries are read off the binaries by dpkg-shlibdeps (dpkg-dev),
# with the versions their symbols need. It finds our own libraries in the build tree and leaves
# them to the component dependencies above.
find_program(HXL_DPKG_SHLIBDEPS dpkg-shlibdeps)
if(HXL_DPKG_SHLIBDEPS)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "")
  foreach(library IN LISTS HXL_LIBRARIES)
    get_target_property(dir ${library} BINARY_DIR)
    list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${dir})
  endforeach()
else()
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6, libgcc-s1, libstdc++6, zlib1g")
endif()
# A shlibs file, so that packages built against ours depend on them in turn.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_POST_BUILD_SCRIPTS ${HXL_DEB_DIR}/FinishPackages.cmake)

foreach(component IN LISTS HXL_LIBRARIES ITEMS dev)
  string(TOUPPER ${component} COMPONENT)
  if(component STREQUAL "dev")
    set(package libhxlvirtualmemmgmt-dev)
    set(CPACK_DEBIAN_${COMPONENT}_PACKAGE_SECTION libdevel)
  else()
    # The name lintian derives from the SONAME: lower case, _ as -, the SONAME version last
    # (after a - when the name ends in a digit).
    string(TOLOWER "lib${component}" package)
    string(REPLACE "_" "-" package ${package})
    if(package MATCHES "[0-9]$")
      string(APPEND package "-")
    endif()
    string(APPEND package ${PROJECT_VERSION_MAJOR})
    set(CPACK_DEBIAN_${COMPONENT}_PACKAGE_SECTION libs)
    set(CPACK_DEBIAN_${COMPONENT}_PACKAGE_CONTROL_EXTRA ${HXL_DEB_DIR}/triggers)
  endif()
  set(CPACK_DEBIAN_${COMPONENT}_PACKAGE_NAME ${package})
  list(GET HXL_DEB_${component} 0 synopsis)
  list(GET HXL_DEB_${component} 1 holds)
  set(CPACK_DEBIAN_${COMPONENT}_DESCRIPTION "${synopsis}\n${HXL_DEB_ABOUT}\n${holds}")
  install(FILES ${HXL_DEB_BUILD_DIR}/copyright ${HXL_DEB_BUILD_DIR}/changelog.gz
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component}
          EXCLUDE_FROM_ALL)
endforeach()

include(CPack)
