# Toolchain file: 64-bit ARM Linux (aarch64) with Debian's cross compiler and
# multiarch libraries.
#
#   cmake -S . -B build-arm64 -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
#
# Needs g++-aarch64-linux-gnu and the :arm64 forms of the dependencies
# (scripts/cross-arm64.sh installs them). Libraries and CMake packages are
# found in /usr/lib/aarch64-linux-gnu, headers in /usr/include (multiarch
# shares them between architectures). When qemu-user is installed, CTest
# runs the test programs (and gtest's test discovery) through qemu-aarch64,
# which finds the arm64 loader and libraries where multiarch puts them.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
find_program(VQX_AARCH64_NM aarch64-linux-gnu-nm)
if(VQX_AARCH64_NM)
  set(CMAKE_NM ${VQX_AARCH64_NM} CACHE FILEPATH "nm for aarch64 objects")
endif()

# Programs are the build machine's; libraries and packages the target's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_IGNORE_PATH /usr/lib/x86_64-linux-gnu /lib/x86_64-linux-gnu
    /usr/lib/x86_64-linux-gnu/cmake)

find_program(VQX_QEMU_AARCH64 qemu-aarch64)
if(VQX_QEMU_AARCH64)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${VQX_QEMU_AARCH64})
endif()
