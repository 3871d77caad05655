include(CMakePackageConfigHelpers)

set(HXL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/HXLVirtualMemMgmt)

# Install components, one Debian package each (cmake/Package.cmake): each shared library is a
# component named after its target; `dev` holds what building against them takes (headers, the
# .so links, static archives, the CMake package and the pkg-config file); `doc` the licence and
# the change log of a plain install (a Debian package has its own).
foreach(library IN LISTS HXL_LIBRARIES)
  install(TARGETS ${library} EXPORT HXLVirtualMemMgmtTargets
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${library} NAMELINK_COMPONENT dev
          ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
endforeach()
install(FILES ${PROJECT_SOURCE_DIR}/LICENSE ${PROJECT_SOURCE_DIR}/CHANGELOG.md
        DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT doc)

# The interface: the headers users include (by bare name, from one folder) and the API
# reference covers. Paths below the source folder.
set(HXL_PUBLIC_HEADERS
    contracts/HXLCore.h
    contracts/VirtualMemoryPool.h
    contracts/VirtualMemoryFastPath.h
    contracts/ZOJStreams.h
    vmm/HXLVirtualMemoryMgr.h
    vmm/HXLVirtualPageItem.h
    vmm/HXLVirtualPageItemPool.h
    vmm/HXLVirtualReference.h
    nodes/HXLVirtualChildren.h
    nodes/HXLVirtualContainer.h
    nodes/HXLVirtualNodeClass.h
    nodes/HXLVirtualPersistNode.h
    nodes/HXLVirtualTree.h
    nodes/HXLVirtualTreeNode.h
    strings/HXLVirtualI18NString.h
    strings/HXLVirtualUTF8String.h
    file/HXLVirtualFile.h
    heap/HXLFixedMemoryPool.h
    heap/HXLMemoryArena.h
    heap/HXLMemoryPool.h)
# Public headers that CMake generates in the build tree: the export macro (cmake/HXLExport.h.in)
# and the version (vmm/HXLVirtualMemMgmtVersion.h.in).
set(HXL_GENERATED_HEADERS HXLExport.h HXLVirtualMemMgmtVersion.h)
# Headers that only the library's own sources include. Their first comment says "Not part of
# the interface", which the install test looks for.
set(HXL_INTERNAL_HEADERS strings/HXLVirtualStringPayload.h vmm/HXLTranslated.h)

# Every header is one or the other: a new one has to be placed before the build configures.
file(GLOB HXL_CONTRACT_HEADERS CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/contracts/*.h)
foreach(header IN LISTS HXL_CONTRACT_HEADERS HXL_HEADERS)
  file(RELATIVE_PATH header ${PROJECT_SOURCE_DIR} ${header})
  if(NOT header IN_LIST HXL_PUBLIC_HEADERS AND NOT header IN_LIST HXL_INTERNAL_HEADERS)
    message(FATAL_ERROR "${header} is neither public nor internal: add it to "
                        "HXL_PUBLIC_HEADERS or HXL_INTERNAL_HEADERS in cmake/Install.cmake")
  endif()
endforeach()

list(TRANSFORM HXL_PUBLIC_HEADERS PREPEND ${PROJECT_SOURCE_DIR}/
     OUTPUT_VARIABLE HXL_PUBLIC_HEADER_PATHS)
list(TRANSFORM HXL_GENERATED_HEADERS PREPEND ${HXL_GENERATED_INCLUDE_DIR}/
     OUTPUT_VARIABLE generated_paths)
list(APPEND HXL_PUBLIC_HEADER_PATHS ${generated_paths})
install(FILES ${HXL_PUBLIC_HEADER_PATHS} DESTINATION ${HXL_INSTALL_INCLUDEDIR} COMPONENT dev)

install(EXPORT HXLVirtualMemMgmtTargets NAMESPACE HXLVirtualMemMgmt::
        DESTINATION ${HXL_CMAKE_DIR} COMPONENT dev)

if(BUILD_SHARED_LIBS)
  set(HXL_STATIC_PACKAGE OFF)
else()
  set(HXL_STATIC_PACKAGE ON)
endif()
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/HXLVirtualMemMgmtConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/HXLVirtualMemMgmtConfig.cmake
                              INSTALL_DESTINATION ${HXL_CMAKE_DIR})
# Before 1.0 a minor version may change the interface: 0.2 does not serve a request for 0.1.
if(PROJECT_VERSION_MAJOR EQUAL 0)
  set(HXL_VERSION_COMPATIBILITY SameMinorVersion)
else()
  set(HXL_VERSION_COMPATIBILITY SameMajorVersion)
endif()
write_basic_package_version_file(${PROJECT_BINARY_DIR}/HXLVirtualMemMgmtConfigVersion.cmake
                                 COMPATIBILITY ${HXL_VERSION_COMPATIBILITY})
install(FILES ${PROJECT_BINARY_DIR}/HXLVirtualMemMgmtConfig.cmake
              ${PROJECT_BINARY_DIR}/HXLVirtualMemMgmtConfigVersion.cmake
        DESTINATION ${HXL_CMAKE_DIR} COMPONENT dev)

# The .pc file finds the prefix from its own folder, so an installed tree may move.
set(HXL_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
string(REGEX REPLACE "[^/]+" ".." HXL_PKGCONFIG_TO_PREFIX ${HXL_PKGCONFIG_DIR})
# Static archives need zlib on the link line; shared libraries bring their own.
if(BUILD_SHARED_LIBS)
  set(HXL_PKGCONFIG_REQUIRES_PRIVATE "")
else()
  set(HXL_PKGCONFIG_REQUIRES_PRIVATE "Requires.private: zlib")
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/hxlvirtualmemmgmt.pc.in
               ${PROJECT_BINARY_DIR}/hxlvirtualmemmgmt.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/hxlvirtualmemmgmt.pc DESTINATION ${HXL_PKGCONFIG_DIR}
        COMPONENT dev)
