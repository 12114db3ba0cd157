# How the library and its siblings are built: PE DLLs with no language runtime,
# entered at DllMain, exporting exactly the rows of a module-definition file.
#
# The .def files are written once, with the i686 stdcall decorations (Name@bytes).
# On x86_64 the decorations are stripped; on i686 the DLL is linked with
# --kill-at so its exported names stay undecorated, and the import library is
# rebuilt from the decorated file so that clients still link by decorated symbol.

# The base every module is linked at; DllMain compares its instance against it.
set(XK_LINKED_BASE 0x6A400000)

set(XK_MODULE_COMPILE_OPTIONS
  -fno-exceptions -fno-rtti -fno-threadsafe-statics
  -fno-stack-protector -fno-tree-loop-distribute-patterns
  -Wall -Wextra -Werror=return-type)

set(XK_EXPORT_CHECK ${PROJECT_SOURCE_DIR}/scripts/check_exports.py)
set(XK_EXPORTS_DIR  ${PROJECT_SOURCE_DIR}/tests/exports)

# An import library made from a module's .def (dlltool, llvm-dlltool) keeps the
# i686 decorations in the symbols clients link against but imports the
# undecorated names the module exports.
if(XK_ARCH STREQUAL "i686")
  set(XK_DLLTOOL_UNDECORATE -k)
else()
  set(XK_DLLTOOL_UNDECORATE "")
endif()

# xk_add_module(<name> DEF <file> BASE <address> SOURCES ... [LIBRARIES ...])
function(xk_add_module name)
  cmake_parse_arguments(ARG "" "DEF;BASE" "SOURCES;LIBRARIES" ${ARGN})
  add_library(${name} SHARED ${ARG_SOURCES} ${PROJECT_SOURCE_DIR}/src/frame/CompilerSupport.cpp)
  set_target_properties(${name} PROPERTIES PREFIX "" OUTPUT_NAME ${name})
  target_compile_options(${name} PRIVATE ${XK_MODULE_COMPILE_OPTIONS})
  target_compile_definitions(${name} PRIVATE
    WIN32_LEAN_AND_MEAN NOMINMAX UNICODE _UNICODE XK_LINKED_BASE=${ARG_BASE})

  if(XK_ARCH STREQUAL "i686")
    set(def ${ARG_DEF})
    set(entry _DllMain@12)
    set(arch_flags -Wl,--kill-at)
  else()
    set(def ${CMAKE_CURRENT_BINARY_DIR}/${name}.def)
    file(READ ${ARG_DEF} decorated)
    string(REGEX REPLACE "([A-Za-z0-9_])@[0-9]+" "\\1" plain "${decorated}")
    file(GENERATE OUTPUT ${def} CONTENT "${plain}")
    set(entry DllMain)
    set(arch_flags "")
  endif()
  set_property(TARGET ${name} APPEND PROPERTY LINK_DEPENDS ${ARG_DEF})
  # The .def as this target links with it, for import libraries made from it.
  set_property(TARGET ${name} PROPERTY XK_MODULE_DEF ${def})

  target_link_options(${name} PRIVATE
    -nostdlib -Wl,--entry=${entry} -Wl,--image-base=${ARG_BASE}
    -Wl,--dynamicbase -Wl,--no-insert-timestamp ${arch_flags} ${def})
  target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES} gcc)

  if(XK_ARCH STREQUAL "i686")
    add_custom_command(TARGET ${name} POST_BUILD
      COMMAND ${CMAKE_DLLTOOL} ${XK_DLLTOOL_UNDECORATE} -d ${def} -D ${name}.dll -l $<TARGET_LINKER_FILE:${name}>
      COMMENT "Import library of ${name} with decorated symbols")
  endif()
  add_custom_command(TARGET ${name} POST_BUILD
    COMMAND ${Python3_EXECUTABLE} ${XK_EXPORT_CHECK}
      --objdump ${CMAKE_OBJDUMP} --dll $<TARGET_FILE:${name}>
      --expected ${XK_EXPORTS_DIR}/${name}.exports
    COMMENT "Checking the export and import tables of ${name}")
  set_property(TARGET ${name} APPEND PROPERTY LINK_DEPENDS ${XK_EXPORTS_DIR}/${name}.exports)
endfunction()
