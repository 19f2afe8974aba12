# Cross-building for arm64 inside the Debian root of scripts/arm64-root.sh:
# the arm64 libraries sit beside the amd64 ones in Debian's multiarch
# folders, so no sysroot is needed, only the cross compilers and the
# library architecture. Qt's moc and uic come from the amd64 host tools.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

# Test executables run through user-mode emulation, started explicitly
# (no binfmt_misc), inside the same root, where the arm64 libraries are.
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/emulate.sh)

# pkg-config answers for the arm64 libraries (Tesseract, qpdf, FFmpeg), not
# the host's.
set(PKG_CONFIG_EXECUTABLE aarch64-linux-gnu-pkg-config CACHE FILEPATH "pkg-config for arm64")
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
