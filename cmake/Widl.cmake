# widl compiles the project's IDL files. Debian's MinGW packages ship no .idl
# files, so the ones widl imports come from Wine's development headers, and
# stdole2.tlb (for importlib) from Wine's own Windows libraries.
find_program(WIDL_EXECUTABLE NAMES x86_64-w64-mingw32-widl widl REQUIRED)
set(WIDL_INCLUDE_DIR /usr/include/wine/wine/windows CACHE PATH "Folder of oaidl.idl and friends")
set(WIDL_TLB_DIR /usr/lib/x86_64-linux-gnu/wine/x86_64-windows CACHE PATH "Folder of stdole2.tlb")

# widl_compile(<idl> HEADER <h> [IID <c>] [TLB <tlb>] [INCLUDES dir...])
function(widl_compile idl)
  cmake_parse_arguments(W "" "HEADER;IID;TLB" "INCLUDES" ${ARGN})
  get_filename_component(idl_abs ${idl} ABSOLUTE)
  set(outputs ${W_HEADER})
  set(args -m64 --win64 -I${WIDL_INCLUDE_DIR} -L${WIDL_TLB_DIR})
  foreach(dir ${W_INCLUDES})
    list(APPEND args -I${dir} -L${dir})
  endforeach()
  set(cmds COMMAND ${WIDL_EXECUTABLE} ${args} -h -o ${W_HEADER} ${idl_abs})
  if(W_IID)
    list(APPEND outputs ${W_IID})
    list(APPEND cmds COMMAND ${WIDL_EXECUTABLE} ${args} -u -o ${W_IID} ${idl_abs})
  endif()
  if(W_TLB)
    list(APPEND outputs ${W_TLB})
    list(APPEND cmds COMMAND ${WIDL_EXECUTABLE} ${args} -t -o ${W_TLB} ${idl_abs})
  endif()
  add_custom_command(OUTPUT ${outputs} ${cmds} DEPENDS ${idl_abs} VERBATIM
                     COMMENT "widl ${idl}")
endfunction()
