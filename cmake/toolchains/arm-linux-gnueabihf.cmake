# Cross build for Debian armhf (Raspberry Pi OS 32-bit): Debian's cross compiler, the
# multiarch libraries (libcjson-dev:armhf, libgtest-dev:armhf), tests run under qemu-user.
# scripts/cross.sh armhf uses it; scripts/setup.sh cross armhf installs what it needs.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/arm-linux-gnueabihf/pkgconfig:/usr/share/pkgconfig)
set(CMAKE_CROSSCOMPILING_EMULATOR "qemu-arm;-L;/usr/arm-linux-gnueabihf")
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
# The ABI notes of GCC 7.1 about passing vectors of 64-bit values concern code built with older compilers only.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
