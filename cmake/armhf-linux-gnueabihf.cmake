# Cross-build for the box (ARMv7, hard float) with Debian's armhf multiarch toolchain:
#   apt-get install crossbuild-essential-armhf libssl-dev:armhf libgtest-dev:armhf libbenchmark-dev:armhf
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-linux-gnueabihf.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

# Multiarch keeps the armhf libraries and headers under the host's own /usr, so the host root
# is searched, but only for libraries, headers and packages (programs are the build host's).
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/arm-linux-gnueabihf/pkgconfig:/usr/share/pkgconfig)

# GCC's notes that ARM argument passing changed in GCC 7.1 concern mixing with objects built
# by older compilers, which never happens here.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")
