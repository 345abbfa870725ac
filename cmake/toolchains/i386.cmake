# Builds everything as 32-bit x86 programs on an x86-64 Debian host and runs
# them under qemu-i386, so that ctest exercises the library as it runs on its
# 32-bit target (4-byte size_t, 2^31 - 1 element limit of std::vector<char>).
#
#   cmake -S . -B build-32 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/i386.cmake
#   cmake --build build-32 -j2 && ctest --test-dir build-32
#
# Needs g++-multilib, qemu-user and the i386 packages installed beside the
# 64-bit ones (dpkg --add-architecture i386): libabsl-dev:i386,
# libgtest-dev:i386, libelf1:i386, libfmt-dev:i386. The i386 libelf is used
# through its runtime library alone (libelf-dev:i386 cannot be installed next
# to g++-multilib); the headers of the 64-bit libelf-dev serve. There is no
# i386 libdw beside them, so the symbolization library (and kelodbg's
# addr2line and map) is left out of this build.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)

set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
# (The project itself builds with 64-bit file offsets, for files above 2 GiB
# and for file systems with large inode numbers.)
set(CMAKE_C_FLAGS_INIT "-m32")
set(CMAKE_CXX_FLAGS_INIT "-m32")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-m32")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-m32")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-m32")

# Libraries, CMake packages and pkg-config files come from the i386 tree.
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set(CMAKE_SIZEOF_VOID_P 4)
set(CMAKE_IGNORE_PATH /usr/lib/x86_64-linux-gnu /usr/lib/x86_64-linux-gnu/cmake)
# libelf has no i386 development package that installs beside g++-multilib,
# so the build makes its own: a libelf.so link to the i386 runtime library
# and a pkg-config file for it, with the headers of the 64-bit package.
# (The toolchain file is read again for every try_compile, whose binary
# directory is temporary: only the main project's run sets this up.)
get_property(_kelo_in_try_compile GLOBAL PROPERTY IN_TRY_COMPILE)
if(NOT _kelo_in_try_compile)
  set(_kelo_i386_dir ${CMAKE_BINARY_DIR}/i386-dev)
  file(MAKE_DIRECTORY ${_kelo_i386_dir})
  file(CREATE_LINK /usr/lib/i386-linux-gnu/libelf.so.1 ${_kelo_i386_dir}/libelf.so SYMBOLIC)
  file(WRITE ${_kelo_i386_dir}/libelf.pc
    "Name: libelf\nDescription: ELF file handling library (i386 runtime)\nVersion: 0.188\n"
    "Cflags:\nLibs: -L${_kelo_i386_dir} -lelf\n")
  set(ENV{PKG_CONFIG_LIBDIR} "${_kelo_i386_dir}:/usr/lib/i386-linux-gnu/pkgconfig:/usr/share/pkgconfig")
endif()

find_program(KELO_QEMU_I386 qemu-i386 REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${KELO_QEMU_I386})
