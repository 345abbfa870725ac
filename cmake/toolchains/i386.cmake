# Builds everything as 32-bit x86 programs on an x86-64 Debian host and runs
# them under qemu-i386, so that ctest exercises the library as it runs on its
# 32-bit target (4-byte size_t, 2^31 - 1 element limit of std::vector<char>).
#
#   cmake -S . -B build-32 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/i386.cmake
#   cmake --build build-32 -j2 && ctest --test-dir build-32
#
# Needs g++-multilib, qemu-user and the i386 packages installed beside the
# 64-bit ones (dpkg --add-architecture i386): libabsl-dev:i386,
# libgtest-dev:i386, libgmock-dev:i386, libelf1:i386. The i386 libelf is used
# through its runtime library alone (libelf-dev:i386 cannot be installed next
# to g++-multilib); the headers of the 64-bit libelf-dev serve.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)

set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
set(CMAKE_C_FLAGS_INIT "-m32")
set(CMAKE_CXX_FLAGS_INIT "-m32")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-m32")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-m32")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-m32")

# Libraries, CMake packages and pkg-config files come from the i386 tree.
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set(CMAKE_SIZEOF_VOID_P 4)
set(CMAKE_IGNORE_PATH /usr/lib/x86_64-linux-gnu /usr/lib/x86_64-linux-gnu/cmake)
set(ENV{PKG_CONFIG_LIBDIR}
    "${CMAKE_CURRENT_LIST_DIR}/i386-pkgconfig:/usr/lib/i386-linux-gnu/pkgconfig:/usr/share/pkgconfig")

find_program(KELO_QEMU_I386 qemu-i386 REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${KELO_QEMU_I386})
