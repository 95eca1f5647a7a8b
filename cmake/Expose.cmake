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

# zeph_expose_headers(<target> <name> <header>...): an interface library whose users
# include just these headers, as "<name>/header.h", and nothing else of their folder:
# the contracts the host side shares with the provider (log levels, metric names,
# value keys), with nothing of the provider linked.
function(zeph_expose_headers target name)
  add_library(${target} INTERFACE)
  set(root ${CMAKE_BINARY_DIR}/include/${target})
  file(MAKE_DIRECTORY ${root}/${name})
  foreach(header ${ARGN})
    get_filename_component(header ${header} ABSOLUTE)
    get_filename_component(file ${header} NAME)
    file(CREATE_LINK ${header} ${root}/${name}/${file} SYMBOLIC COPY_ON_ERROR)
  endforeach()
  target_include_directories(${target} INTERFACE ${root})
endfunction()
