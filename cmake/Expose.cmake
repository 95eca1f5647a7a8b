# zeph_expose(<target> <folder> [NAME <name>] [SCOPE <scope>]): the target's users
# include the folder's headers as "<name>/header.h" (name: the folder's own by
# default), and through it see no other folder of ours. Each target gets an include
# root of its own in the build tree holding one link to its folder.
function(zeph_expose target folder)
  cmake_parse_arguments(E "" "NAME;SCOPE" "" ${ARGN})
  get_filename_component(folder ${folder} ABSOLUTE)
  if(NOT E_NAME)
    get_filename_component(E_NAME ${folder} NAME)
  endif()
  if(NOT E_SCOPE)
    set(E_SCOPE PUBLIC)
  endif()
  set(root ${CMAKE_BINARY_DIR}/include/${target})
  file(MAKE_DIRECTORY ${root})
  file(CREATE_LINK ${folder} ${root}/${E_NAME} SYMBOLIC COPY_ON_ERROR)
  target_include_directories(${target} ${E_SCOPE} ${root})
endfunction()
