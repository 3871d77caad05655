# Puts the library into a scratch prefix, checks that the headers there are the interface and
# nothing else, then builds and runs two consumers against it: one with
# find_package(HXLVirtualMemMgmt CONFIG), one with pkg-config. MODE says where the prefix
# comes from:
#   install  `cmake --install` of the build tree BUILD_DIR;
#   static   a build of the sources with -DBUILD_SHARED_LIBS=OFF, installed: the consumers link
#            the four archives and zlib, in the order the CMake package and the .pc file give;
#   package  the Debian packages of a build of the sources with the deb preset: their names,
#            control fields and contents are checked, lintian (where installed) must report no
#            error and no warning, and `dpkg-deb -x` unpacks them all into a scratch root whose
#            usr/ is the prefix.
# The static and package builds take CXX and CC, and leave out tests, examples and benchmarks.
cmake_minimum_required(VERSION 3.22)
file(REMOVE_RECURSE ${WORK_DIR})

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  message(STATUS "${out}")
endfunction()

function(field deb name out)
  execute_process(COMMAND ${DPKG_DEB} -f ${deb} ${name} OUTPUT_VARIABLE value
                  OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  set(${out} "${value}" PARENT_SCOPE)
endfunction()

set(compilers -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_C_COMPILER=${CC})
set(without -DHXL_BUILD_TESTS=OFF -DHXL_BUILD_EXAMPLES=OFF -DHXL_BUILD_BENCHMARKS=OFF)
set(run_env "")

if(MODE STREQUAL "static")
  run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/build -G ${GENERATOR} ${compilers}
      ${without} -DBUILD_SHARED_LIBS=OFF -DCMAKE_INSTALL_PREFIX=${WORK_DIR}/prefix)
  run(${CMAKE_COMMAND} --build ${WORK_DIR}/build --target install)
  set(prefix ${WORK_DIR}/prefix)
  set(libdir ${prefix}/lib)
  file(GLOB archives RELATIVE ${libdir} ${libdir}/*.a)
  file(GLOB shared ${libdir}/*.so*)
  list(SORT archives)
  set(expected libHXLCore.a libHXLVirtualMemMgmt.a libZOJStreams.a libtcmalloc_virtualmm.a)
  if(NOT archives STREQUAL expected OR shared)
    message(FATAL_ERROR "the static install holds ${archives} ${shared}")
  endif()
elseif(MODE STREQUAL "package")
  # The deb preset's settings, with this build's compilers, in a folder of its own.
  run(${CMAKE_COMMAND} --preset deb -S ${SOURCE_DIR} -B ${WORK_DIR}/build ${compilers})
  run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
  run(${CPACK} --config ${WORK_DIR}/build/CPackConfig.cmake -B ${WORK_DIR}/package)
  execute_process(COMMAND dpkg --print-architecture OUTPUT_VARIABLE arch
                  OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  set(runtime libhxlcore0 libtcmalloc-virtualmm0 libzojstreams0 libhxlvirtualmemmgmt0)
  set(debs "")
  foreach(package IN LISTS runtime ITEMS libhxlvirtualmemmgmt-dev)
    set(deb ${WORK_DIR}/package/${package}_${VERSION}_${arch}.deb)
    if(NOT EXISTS ${deb})
      file(GLOB made ${WORK_DIR}/package/*.deb)
      message(FATAL_ERROR "no ${deb}; cpack made: ${made}")
    endif()
    list(APPEND debs ${deb})
    field(${deb} Version version)
    field(${deb} Depends depends)
    field(${deb} Installed-Size size)
    if(NOT version STREQUAL VERSION)
      message(FATAL_ERROR "${package} has version ${version}")
    endif()
    # Everything lies under /usr. Installed-Size is what dpkg-gencontrol would say: each file
    # rounded up to KiB, 1 KiB for each folder and link.
    execute_process(COMMAND ${DPKG_DEB} -c ${deb} OUTPUT_VARIABLE listing
                    COMMAND_ERROR_IS_FATAL ANY)
    string(REGEX REPLACE "\n$" "" listing "${listing}")
    string(REPLACE "\n" ";" listing "${listing}")
    set(kib 0)
    foreach(entry IN LISTS listing)
      set(line "^(.)[^ ]* +[^ ]+ +([0-9]+) +[^ ]+ +[^ ]+ +\\./(usr/[^ ]*)?( -> .*)?$")
      if(NOT entry MATCHES "${line}")
        message(FATAL_ERROR "${package}: outside /usr: ${entry}")
      elseif(CMAKE_MATCH_1 STREQUAL "-")
        math(EXPR kib "${kib} + (${CMAKE_MATCH_2} + 1023) / 1024")
      else()
        math(EXPR kib "${kib} + 1")
      endif()
    endforeach()
    if(NOT size EQUAL kib)
      message(FATAL_ERROR "${package}: Installed-Size ${size}, contents ${kib} KiB")
    endif()
    # Runtime packages: a shlibs file and the ldconfig trigger, no maintainer script.
    execute_process(COMMAND ${DPKG_DEB} --ctrl-tarfile ${deb} COMMAND tar -t
                    OUTPUT_VARIABLE control COMMAND_ERROR_IS_FATAL ANY)
    if(package IN_LIST runtime)
      if(NOT depends MATCHES "(^|, )libstdc\\+\\+6 \\(>= ")
        message(FATAL_ERROR "${package} lacks a versioned libstdc++6: ${depends}")
      endif()
      if(NOT control MATCHES "shlibs" OR NOT control MATCHES "triggers" OR
         control MATCHES "post|pre")
        message(FATAL_ERROR "${package} control files: ${control}")
      endif()
    else()
      foreach(dependency IN LISTS runtime)
        if(NOT depends MATCHES "${dependency} \\(= ${VERSION}\\)")
          message(FATAL_ERROR "${package} does not need ${dependency} ${VERSION}: ${depends}")
        endif()
      endforeach()
    endif()
    run(${DPKG_DEB} -x ${deb} ${WORK_DIR}/root)
  endforeach()
  field(${WORK_DIR}/package/libhxlvirtualmemmgmt0_${VERSION}_${arch}.deb Depends depends)
  foreach(dependency libhxlcore0 libtcmalloc-virtualmm0 libzojstreams0)
    if(NOT depends MATCHES "${dependency} ")
      message(FATAL_ERROR "the library does not need ${dependency}: ${depends}")
    endif()
  endforeach()
  find_program(LINTIAN lintian)
  if(LINTIAN)
    execute_process(COMMAND ${LINTIAN} --pedantic --fail-on error,warning ${debs}
                    RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
    message(STATUS "lintian --pedantic:\n${out}")
    if(NOT rc EQUAL 0)
      message(FATAL_ERROR "lintian reports errors or warnings:\n${out}\n${err}")
    endif()
  else()
    message(STATUS "lintian not found: the packages are not checked by it")
  endif()
  set(prefix ${WORK_DIR}/root/usr)
  set(libdir ${prefix}/${LIBDIR})
  # The packaged libraries carry no run path, as in /usr they need none.
  set(run_env ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${libdir})
else()
  run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/prefix)
  set(prefix ${WORK_DIR}/prefix)
  set(libdir ${prefix}/${LIBDIR})
endif()

set(flags "")
if(SANITIZE)
  set(flags "-fsanitize=address,undefined")
endif()
separate_arguments(flag_list UNIX_COMMAND "${flags}")

# 0. The installed headers are exactly the public ones, none says it is internal, and together
#    they compile warning-free against the installed tree alone (the test public_headers
#    compiles each one alone, with both compilers and standards, from this build's install).
set(include_dir ${prefix}/include/HXLVirtualMemMgmt)
file(GLOB installed RELATIVE ${include_dir} ${include_dir}/*)
set(all_headers "")
string(REPLACE "," ";" expected "${PUBLIC_HEADERS}")
list(SORT installed)
list(SORT expected)
if(NOT installed STREQUAL expected)
  message(FATAL_ERROR "installed headers: ${installed}\nthe interface: ${expected}")
endif()
foreach(header IN LISTS installed)
  file(READ ${include_dir}/${header} text)
  if(text MATCHES "Not part of the interface")
    message(FATAL_ERROR "${header} is internal, yet installed")
  endif()
  string(APPEND all_headers "#include \"${header}\"\n")
endforeach()
file(WRITE ${WORK_DIR}/all_headers.cpp "${all_headers}")
run(${CXX} -std=c++17 -fsyntax-only -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror
    -I${include_dir} ${WORK_DIR}/all_headers.cpp)

# 1. find_package. The package serves a request for its own major.minor version and, before
#    1.0, none for the next minor one.
function(serves major minor out)
  set(PACKAGE_FIND_VERSION ${major}.${minor})
  set(PACKAGE_FIND_VERSION_MAJOR ${major})
  set(PACKAGE_FIND_VERSION_MINOR ${minor})
  include(${libdir}/cmake/HXLVirtualMemMgmt/HXLVirtualMemMgmtConfigVersion.cmake)
  set(${out} ${PACKAGE_VERSION_COMPATIBLE} PARENT_SCOPE)
endfunction()
string(REGEX MATCHALL "[0-9]+" numbers ${VERSION})
list(GET numbers 0 major)
list(GET numbers 1 minor)
math(EXPR next "${minor} + 1")
serves(${major} ${minor} own)
serves(${major} ${next} newer)
if(NOT own OR (major EQUAL 0 AND newer))
  message(FATAL_ERROR "${VERSION} serves ${major}.${minor}: ${own}, ${major}.${next}: ${newer}")
endif()
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/install/consumer -B ${WORK_DIR}/cmake-consumer
    -G ${GENERATOR} -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX}
    "-DCMAKE_CXX_FLAGS=${flags}" "-DCMAKE_EXE_LINKER_FLAGS=${flags}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-consumer)
run(${run_env} ${WORK_DIR}/cmake-consumer/consumer)

# 2. pkg-config
find_program(PKG_CONFIG NAMES pkg-config pkgconf REQUIRED)
set(ENV{PKG_CONFIG_PATH} ${libdir}/pkgconfig)
# Archives (from this mode or from a static build tree) need their private dependencies too.
file(GLOB shared ${libdir}/*.so)
set(static "")
if(NOT shared)
  set(static --static)
endif()
execute_process(COMMAND ${PKG_CONFIG} ${static} --cflags --libs hxlvirtualmemmgmt
                RESULT_VARIABLE rc OUTPUT_VARIABLE pc OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "pkg-config does not know hxlvirtualmemmgmt")
endif()
separate_arguments(pc UNIX_COMMAND "${pc}")
run(${CXX} -std=c++17 ${flag_list} ${SOURCE_DIR}/tests/install/consumer.cpp ${pc}
    -Wl,-rpath,${libdir} -o ${WORK_DIR}/pc-consumer)
run(${run_env} ${WORK_DIR}/pc-consumer)
