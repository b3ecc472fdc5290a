# The same as windows-toolchain.cmake with clang; linker, headers and libraries are those of mingw-w64.
include(${CMAKE_CURRENT_LIST_DIR}/windows-toolchain.cmake)
find_program(MINGW_CLANG clang REQUIRED)
find_program(MINGW_CLANGXX clang++ REQUIRED)
set(CMAKE_C_COMPILER ${MINGW_CLANG})
set(CMAKE_CXX_COMPILER ${MINGW_CLANGXX})
set(CMAKE_C_COMPILER_TARGET ${triple})
set(CMAKE_CXX_COMPILER_TARGET ${triple})
set(CMAKE_SYSROOT ${CMAKE_FIND_ROOT_PATH})

# Clang finds no libraries of a GCC whose folder has "posix" in its name. Those emulate thread_local
# variables, so clang must, too.
execute_process(COMMAND ${MINGW_GXX} -print-libgcc-file-name OUTPUT_VARIABLE gcc_folder
                OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
cmake_path(GET gcc_folder PARENT_PATH gcc_folder)
set(CMAKE_C_FLAGS_INIT "-B${gcc_folder} -femulated-tls")
set(CMAKE_CXX_FLAGS_INIT "${CMAKE_C_FLAGS_INIT} -isystem ${gcc_folder}/include/c++")
string(APPEND CMAKE_CXX_FLAGS_INIT " -isystem ${gcc_folder}/include/c++/${triple}")

# Not lld: it writes wrong unwind tables for functions of libstdc++, so that an exception there ends the
# program. GNU ld warns about every type name that GCC pads and clang does not.
foreach(kind EXE SHARED MODULE)
  string(APPEND CMAKE_${kind}_LINKER_FLAGS_INIT " -fuse-ld=bfd -L${gcc_folder} -pthread -Wl,--no-warnings")
endforeach()

# CMake would choose llvm-objdump, whose output has another format.
find_program(CMAKE_OBJDUMP ${triple}-objdump REQUIRED)
