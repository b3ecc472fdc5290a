# Builds for 64-bit Windows with mingw-w64; tests run under Wine through scripts/wine-run.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(triple x86_64-w64-mingw32)
# Only the variant with posix threads has std::thread.
find_program(MINGW_GCC ${triple}-gcc-posix REQUIRED)
find_program(MINGW_GXX ${triple}-g++-posix REQUIRED)
set(CMAKE_C_COMPILER ${MINGW_GCC})
set(CMAKE_CXX_COMPILER ${MINGW_GXX})
find_program(CMAKE_RC_COMPILER NAMES ${triple}-windres REQUIRED)

# Nothing of the build machine is taken, but for what the modules in cmake/windows point to.
cmake_path(GET MINGW_GXX PARENT_PATH toolchain_bin)
cmake_path(SET CMAKE_FIND_ROOT_PATH NORMALIZE "${toolchain_bin}/../${triple}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_MODULE_PATH "${CMAKE_CURRENT_LIST_DIR}/windows")

# Programs and libraries need nothing but the system's own DLLs, and come out the same every time.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -Wl,--no-insert-timestamp")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static -Wl,--no-insert-timestamp")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static -Wl,--no-insert-timestamp")

if(NOT DEFINED CMAKE_CROSSCOMPILING_EMULATOR)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${CMAKE_CURRENT_LIST_DIR}/../scripts/wine-run")
endif()
