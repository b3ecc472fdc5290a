# Builds for 64-bit ARM with Debian's cross compiler and Debian's libraries of that architecture; tests run
# under qemu's emulation of one process.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(triple aarch64-linux-gnu)
find_program(ARM64_GCC ${triple}-gcc REQUIRED)
find_program(ARM64_GXX ${triple}-g++ REQUIRED)
set(CMAKE_C_COMPILER ${ARM64_GCC})
set(CMAKE_CXX_COMPILER ${ARM64_GXX})

# Debian keeps the libraries of each architecture in a folder of its own, which CMake learns from the
# compiler. The headers beside them are everybody's. pkg-config is the one that looks in that folder.
find_program(PKG_CONFIG_EXECUTABLE ${triple}-pkg-config REQUIRED)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)

if(NOT DEFINED CMAKE_CROSSCOMPILING_EMULATOR)
  find_program(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 REQUIRED)
endif()
