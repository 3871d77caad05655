# Installs the headers (the dev component) into a scratch prefix and compiles each one alone,
# included twice, as C++17 and as C++20, with every compiler in COMPILERS, under the warnings a
# careful user turns on. pkg-config hands the folder to users with -I, not -isystem, so a warning
# in a header is a warning in their build. Arguments: BUILD_DIR, WORK_DIR, COMPILERS
# (comma-separated).
cmake_minimum_required(VERSION 3.22)
file(REMOVE_RECURSE ${WORK_DIR})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/prefix
                        --component dev
                OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
set(include_dir ${WORK_DIR}/prefix/include/HXLVirtualMemMgmt)
file(GLOB headers RELATIVE ${include_dir} ${include_dir}/*.h)
if(NOT headers)
  message(FATAL_ERROR "no header installed in ${include_dir}")
endif()
set(sources "")
foreach(header IN LISTS headers)
  string(REGEX REPLACE "\\.h$" ".cpp" source ${WORK_DIR}/${header})
  file(WRITE ${source} "#include \"${header}\"\n#include \"${header}\"\n")
  list(APPEND sources ${source})
endforeach()

# One command per compiler and standard. execute_process runs the commands it is given at the
# same time (as a pipeline; a compiler reads no input and -fsyntax-only writes no output).
string(REPLACE "," ";" COMPILERS "${COMPILERS}")
set(commands "")
set(names "")
foreach(compiler IN LISTS COMPILERS)
  foreach(standard 17 20)
    list(APPEND commands COMMAND ${compiler} -std=c++${standard} -fsyntax-only -Wall -Wextra
         -Wpedantic -Wshadow -Wconversion -Wzero-as-null-pointer-constant -Werror
         -I${include_dir} ${sources})
    list(APPEND names "${compiler} -std=c++${standard}")
  endforeach()
endforeach()
execute_process(${commands} RESULTS_VARIABLE results ERROR_VARIABLE errors)
set(failed "")
foreach(name result IN ZIP_LISTS names results)
  if(NOT result EQUAL 0)
    list(APPEND failed "${name}")
  endif()
endforeach()
list(LENGTH headers count)
if(failed)
  message(FATAL_ERROR "headers do not compile cleanly with: ${failed}\n${errors}")
endif()
message(STATUS "${count} headers compile alone with: ${names}")
