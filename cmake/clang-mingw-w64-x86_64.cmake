# Cross-compiles for 64-bit Windows with Clang and lld on the MinGW-w64 GCC
# runtime and headers (POSIX thread model), the same ones the GCC build uses.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(TOOLCHAIN_PREFIX x86_64-w64-mingw32)
set(CMAKE_C_COMPILER   clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET   ${TOOLCHAIN_PREFIX})
set(CMAKE_CXX_COMPILER_TARGET ${TOOLCHAIN_PREFIX})
set(CMAKE_RC_COMPILER  ${TOOLCHAIN_PREFIX}-windres)
set(CMAKE_FIND_ROOT_PATH /usr/${TOOLCHAIN_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)

# Clang does not find the GCC installation under its "-posix" folder name, so its
# C++ headers and libraries are named here. Thread-local variables follow GCC's
# emulated model, which libstdc++ was built with.
set(ZEPH_MINGW_GCC_DIR /usr/lib/gcc/${TOOLCHAIN_PREFIX}/12-posix CACHE PATH "MinGW-w64 GCC runtime")
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES
    ${ZEPH_MINGW_GCC_DIR}/include/c++
    ${ZEPH_MINGW_GCC_DIR}/include/c++/${TOOLCHAIN_PREFIX}
    ${ZEPH_MINGW_GCC_DIR}/include/c++/backward)
set(CMAKE_C_FLAGS_INIT   "-femulated-tls")
set(CMAKE_CXX_FLAGS_INIT "-femulated-tls")

# No MinGW runtime DLLs beside our binaries; winpthreads backs the C++ threads.
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT "-fuse-ld=lld -static -L${ZEPH_MINGW_GCC_DIR}")
endforeach()
set(CMAKE_CXX_STANDARD_LIBRARIES "-lpthread")
