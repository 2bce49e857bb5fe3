# Cross build for 32-bit ARM Linux with glibc (Debian armhf multiarch).
# Tests run under qemu-arm with the armhf runtime from /usr/arm-linux-gnueabihf.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
# The cross loader must meet the libc of its own sysroot: the armhf libc of the
# multiarch directories (listed in the host's ld.so.cache) is a different build, and
# the mix crashes at the first thread.
set(CMAKE_CROSSCOMPILING_EMULATOR
    "/usr/bin/env;QEMU_LD_PREFIX=/usr/arm-linux-gnueabihf;qemu-arm;-E;LD_LIBRARY_PATH=/usr/arm-linux-gnueabihf/lib")

# Libraries come from the armhf multiarch directories only, never the host's.
set(CMAKE_IGNORE_PATH /usr/lib/x86_64-linux-gnu /lib/x86_64-linux-gnu)
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/arm-linux-gnueabihf/pkgconfig:/usr/share/pkgconfig")

# Boost is header-only for us and its armhf -dev package does not install next to the
# native one: the build points at a directory that holds only a link to the native
# Boost headers, so no other native header can leak into the cross build.
set(MIXER_BOOST_INCLUDE_DIR "${CMAKE_BINARY_DIR}/boost-only" CACHE PATH "")
if(NOT EXISTS "${MIXER_BOOST_INCLUDE_DIR}/boost")
  file(MAKE_DIRECTORY "${MIXER_BOOST_INCLUDE_DIR}")
  file(CREATE_LINK /usr/include/boost "${MIXER_BOOST_INCLUDE_DIR}/boost" SYMBOLIC)
endif()

# Every object here is built with the same compiler, so GCC's note that the ABI of
# passing some iterators changed in GCC 7.1 concerns nobody; it would bury real warnings.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")
