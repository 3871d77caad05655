# Puts the build tree into a scratch prefix, checks that the headers there are the interface and
# nothing else, then builds and runs two consumers against it: one with
# find_package(HXLVirtualMemMgmt CONFIG), one with pkg-config.
#
# The prefix comes from `cmake --install`, or with PACKAGE set from the Debian package: cpack
# makes it, its control fields are checked, and `dpkg-deb -x` unpacks it into a scratch root
# whose usr/ is the prefix.
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

if(PACKAGE)
  run(${CPACK} -G DEB --config ${BUILD_DIR}/CPackConfig.cmake -B ${WORK_DIR}/package)
  execute_process(COMMAND dpkg --print-architecture OUTPUT_VARIABLE arch
                  OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  set(deb ${WORK_DIR}/package/hxlvirtualmemmgmt_${VERSION}_${arch}.deb)
  if(NOT EXISTS ${deb})
    file(GLOB made ${WORK_DIR}/package/*.deb)
    message(FATAL_ERROR "no ${deb}; cpack made: ${made}")
  endif()
  field(${deb} Package package)
  field(${deb} Version version)
  field(${deb} Depends depends)
  if(NOT package STREQUAL "hxlvirtualmemmgmt" OR NOT version STREQUAL VERSION)
    message(FATAL_ERROR "control names ${package} ${version}")
  endif()
  foreach(dependency zlib1g libstdc\\+\\+6)
    if(NOT depends MATCHES "(^|, )${dependency}( |,|$)")
      message(FATAL_ERROR "Depends lacks ${dependency}: ${depends}")
    endif()
  endforeach()
  # Everything lies under /usr.
  execute_process(COMMAND ${DPKG_DEB} -c ${deb} OUTPUT_VARIABLE listing COMMAND_ERROR_IS_FATAL ANY)
  string(REGEX REPLACE "\n$" "" listing "${listing}")
  string(REPLACE "\n" ";" listing "${listing}")
  foreach(entry IN LISTS listing)
    if(NOT entry MATCHES "^[^ ]+ +[^ ]+ +[^ ]+ +[^ ]+ +[^ ]+ +\\./(usr/[^ ]*)?( -> .*)?$")
      message(FATAL_ERROR "outside /usr: ${entry}")
    endif()
  endforeach()
  run(${DPKG_DEB} -x ${deb} ${WORK_DIR}/root)
  set(prefix ${WORK_DIR}/root/usr)
else()
  run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/prefix)
  set(prefix ${WORK_DIR}/prefix)
endif()

set(flags "")
if(SANITIZE)
  set(flags "-fsanitize=address,undefined")
endif()
separate_arguments(flag_list UNIX_COMMAND "${flags}")

# 0. The installed headers are exactly the public ones, none says it is internal, and together
#    they compile warning-free against the installed tree alone.
set(include_dir ${prefix}/include/HXLVirtualMemMgmt)
file(GLOB installed RELATIVE ${include_dir} ${include_dir}/*)
string(REPLACE "," ";" expected "${PUBLIC_HEADERS}")
list(SORT installed)
list(SORT expected)
if(NOT installed STREQUAL expected)
  message(FATAL_ERROR "installed headers: ${installed}\nthe interface: ${expected}")
endif()
set(all_headers "")
foreach(header IN LISTS installed)
  file(READ ${include_dir}/${header} text)
  if(text MATCHES "Not part of the interface")
    message(FATAL_ERROR "${header} is internal, yet installed")
  endif()
  string(APPEND all_headers "#include \"${header}\"\n")
endforeach()
file(WRITE ${WORK_DIR}/all_headers.cpp "${all_headers}")
run(${CXX} -std=c++17 -fsyntax-only -Wall -Wextra -Wpedantic -Werror -I${include_dir}
    ${WORK_DIR}/all_headers.cpp)

# 1. find_package
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/install/consumer -B ${WORK_DIR}/cmake-consumer
    -G Ninja -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX}
    "-DCMAKE_CXX_FLAGS=${flags}" "-DCMAKE_EXE_LINKER_FLAGS=${flags}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-consumer)
run(${WORK_DIR}/cmake-consumer/consumer)

# 2. pkg-config
find_program(PKG_CONFIG NAMES pkg-config pkgconf REQUIRED)
set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig)
execute_process(COMMAND ${PKG_CONFIG} --cflags --libs hxlvirtualmemmgmt
                RESULT_VARIABLE rc OUTPUT_VARIABLE pc OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "pkg-config does not know hxlvirtualmemmgmt")
endif()
separate_arguments(pc UNIX_COMMAND "${pc}")
run(${CXX} -std=c++17 ${flag_list} ${SOURCE_DIR}/tests/install/consumer.cpp ${pc}
    -Wl,-rpath,${prefix}/lib -o ${WORK_DIR}/pc-consumer)
run(${WORK_DIR}/pc-consumer)
