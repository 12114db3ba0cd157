# What `cmake --install` lays out for users, on either target:
#   bin/      XKComBsD.dll and its two siblings
#   lib/      the import libraries: libXKComBsD.dll.a for MinGW and XKComBsD.lib
#             for MSVC-style linkers (the short format their own librarian
#             writes), both importing the ordinal-only exports by ordinal;
#             XKComBsD.tlb, the type library the DLL also carries
#   include/xkcombsd/   the public headers
#   lib/cmake/XKComBsD/ the CMake package: find_package(XKComBsD) gives the
#             imported target XKComBsD::XKComBsD
include(CMakePackageConfigHelpers)

set(XK_MSVC_IMPLIB ${CMAKE_ARCHIVE_OUTPUT_DIRECTORY}/XKComBsD.lib)
if(XK_ARCH STREQUAL "i686")
  set(machine i386)
else()
  set(machine i386:x86-64)
endif()
get_target_property(def XKComBsD XK_MODULE_DEF)

# Both import libraries are checked to carry every export, as they are made.
set(check_implib ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/scripts/check_import_library.py
  --compiler ${CMAKE_C_COMPILER} --objdump ${CMAKE_OBJDUMP} --def ${def}
  --expected ${PROJECT_SOURCE_DIR}/tests/exports/XKComBsD.exports)
add_custom_command(TARGET XKComBsD POST_BUILD
  COMMAND llvm-dlltool -m ${machine} ${XK_DLLTOOL_UNDECORATE} -d ${def} -D XKComBsD.dll -l ${XK_MSVC_IMPLIB}
  COMMAND ${check_implib} --library $<TARGET_LINKER_FILE:XKComBsD>
  COMMAND ${check_implib} --library ${XK_MSVC_IMPLIB}
  COMMENT "Import libraries of XKComBsD for MSVC-style linkers, and the check of both")

install(TARGETS XKComBsD XKCmnBaD XKIdTrcD RUNTIME DESTINATION bin)
install(FILES $<TARGET_LINKER_FILE:XKComBsD> ${XK_MSVC_IMPLIB} DESTINATION lib)
install(FILES ${XK_TYPELIB} DESTINATION lib RENAME XKComBsD.tlb)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/xkcombsd DESTINATION include)

set(package_dir lib/cmake/XKComBsD)
configure_file(${PROJECT_SOURCE_DIR}/cmake/XKComBsDConfig.cmake.in
  ${CMAKE_BINARY_DIR}/package/XKComBsDConfig.cmake @ONLY)
# The version file also refuses a consumer whose pointer size differs.
write_basic_package_version_file(${CMAKE_BINARY_DIR}/package/XKComBsDConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/package/XKComBsDConfig.cmake
  ${CMAKE_BINARY_DIR}/package/XKComBsDConfigVersion.cmake DESTINATION ${package_dir})
