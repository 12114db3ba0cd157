# Cross build for Windows with Debian's MinGW-w64 compilers (posix thread model).
# XK_ARCH picks the target: x86_64 (built and tested under Wine) or i686.
if(NOT XK_ARCH)
  set(XK_ARCH x86_64)
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES XK_ARCH)

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR ${XK_ARCH})
set(XK_TRIPLET ${XK_ARCH}-w64-mingw32)
set(CMAKE_C_COMPILER   ${XK_TRIPLET}-gcc-posix)
set(CMAKE_CXX_COMPILER ${XK_TRIPLET}-g++-posix)
set(CMAKE_RC_COMPILER  ${XK_TRIPLET}-windres)
set(CMAKE_DLLTOOL      ${XK_TRIPLET}-dlltool)
set(CMAKE_OBJDUMP      ${XK_TRIPLET}-objdump)
set(CMAKE_FIND_ROOT_PATH /usr/${XK_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
