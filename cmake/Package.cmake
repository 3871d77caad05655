# The Debian package: `cpack` in a build folder (or the `package` target) makes
# hxlvirtualmemmgmt_<version>_<architecture>.deb of what `cmake --install` puts under /usr:
# the four shared libraries, the headers, the CMake package and the pkg-config file.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME hxlvirtualmemmgmt)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Paged store of offset-named blocks, typed nodes, strings, files and heap allocators")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
set(HXL_PACKAGE_MAINTAINER "HXLVirtualMemMgmt maintainers <maintainers@hxlvirtualmemmgmt.invalid>"
    CACHE STRING "Maintainer field of the Debian package")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${HXL_PACKAGE_MAINTAINER}")

# Dependencies are read off the libraries by dpkg-shlibdeps (dpkg-dev), with the versions their
# symbols need: libc6, libgcc-s1, libstdc++6 and zlib1g (and the sanitizer runtimes in a
# sanitizer build). Without it they are named here, unversioned.
find_program(HXL_DPKG_SHLIBDEPS dpkg-shlibdeps)
if(HXL_DPKG_SHLIBDEPS)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
else()
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6, libgcc-s1, libstdc++6, zlib1g")
endif()
# A shlibs file, so that packages built against this one depend on it in turn.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

include(CPack)
