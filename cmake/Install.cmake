include(CMakePackageConfigHelpers)

set(HXL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/HXLVirtualMemMgmt)

install(TARGETS HXLCore tcmalloc_virtualmm ZOJStreams HXLVirtualMemMgmt
        EXPORT HXLVirtualMemMgmtTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# Users include every header by its bare name from one folder.
file(GLOB HXL_CONTRACT_HEADERS ${PROJECT_SOURCE_DIR}/contracts/*.h)
install(FILES ${HXL_CONTRACT_HEADERS} ${HXL_HEADERS} DESTINATION ${HXL_INSTALL_INCLUDEDIR})

install(EXPORT HXLVirtualMemMgmtTargets NAMESPACE HXLVirtualMemMgmt::
        DESTINATION ${HXL_CMAKE_DIR})

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/HXLVirtualMemMgmtConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/HXLVirtualMemMgmtConfig.cmake
                              INSTALL_DESTINATION ${HXL_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/HXLVirtualMemMgmtConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/HXLVirtualMemMgmtConfig.cmake
              ${PROJECT_BINARY_DIR}/HXLVirtualMemMgmtConfigVersion.cmake
        DESTINATION ${HXL_CMAKE_DIR})

configure_file(${PROJECT_SOURCE_DIR}/cmake/hxlvirtualmemmgmt.pc.in
               ${PROJECT_BINARY_DIR}/hxlvirtualmemmgmt.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/hxlvirtualmemmgmt.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
