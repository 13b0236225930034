# Cross build for Debian arm64 (Raspberry Pi OS 64-bit): Debian's cross compiler, the
# multiarch libraries (libcjson-dev:arm64, libgtest-dev:arm64), tests run under qemu-user.
# scripts/cross.sh arm64 uses it; scripts/setup.sh cross arm64 installs what it needs.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
set(CMAKE_CROSSCOMPILING_EMULATOR "qemu-aarch64;-L;/usr/aarch64-linux-gnu")
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
