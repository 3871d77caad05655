# Puts the build tree into a scratch prefix, checks that the headers there are the interface and
# nothing else, then builds and runs two consumers against it: one with
# find_package(HXLVirtualMemMgmt CONFIG), one with pkg-config.
file(REMOVE_RECURSE ${WORK_DIR})

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  message(STATUS "${out}")
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/prefix)
set(prefix ${WORK_DIR}/prefix)

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
