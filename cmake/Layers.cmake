# The library is built in layers, one OBJECT library per layer, combined
# into the one shared library. A layer compiles against a staged include
# tree that holds only its own folders and those of the layers below it
# (symbolic links to the source folders and to their generated headers), so
# an include that reaches up the order names a file the compiler cannot
# find, and the build fails there.
#
#   mcastfib_layer(NAME [DIRS folder...] [FILES pattern...] [BELOW layer...]
#                  [INTERNAL header...])
#
# DIRS are whole folders; FILES are globs (relative to the source root) for a
# layer that is a few files of a folder whose rest sits higher: the route
# keys under the FIB model, the route record under the PIM interface status
# that keeps routes. A folder's files claimed by a FILES layer belong to it
# alone. BELOW names the layers this one uses directly; the layers they use
# come with them. INTERNAL lists headers (relative to the source root) that
# only the library's own sources include: they are not installed.
#
# Sets in the caller's scope, accumulated over the layers:
#   MCASTFIB_LAYERS, MCASTFIB_DIRS (the whole folders, bottom up),
#   public_headers, generated_headers, test_sources.

function(mcastfib_layer name)
  cmake_parse_arguments(L "" "" "DIRS;FILES;BELOW;INTERNAL" ${ARGN})
  # What this layer holds: whole folders, and files (sources, headers and
  # schemas) that a lower layer has not claimed.
  get_property(claimed GLOBAL PROPERTY MCASTFIB_CLAIMED_FILES)
  set(own_files)
  foreach(pattern IN LISTS L_FILES)
    file(GLOB matched CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${pattern})
    if(NOT matched)
      message(FATAL_ERROR "layer ${name}: ${pattern} matches no file")
    endif()
    list(APPEND own_files ${matched})
  endforeach()
  foreach(d IN LISTS L_DIRS)
    file(GLOB in_dir CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${d}/*.cpp ${CMAKE_SOURCE_DIR}/${d}/*.h
         ${CMAKE_SOURCE_DIR}/${d}/*.gant)
    list(APPEND own_files ${in_dir})
  endforeach()
  if(claimed)
    list(REMOVE_ITEM own_files ${claimed})
  endif()
  list(FILTER own_files EXCLUDE REGEX "_test\\.cpp$")
  set_property(GLOBAL APPEND PROPERTY MCASTFIB_CLAIMED_FILES ${own_files})

  # What it may include: its own folders and files, and those of the layers
  # below it. A file of a folder that is visible whole needs no link of its own.
  set(dirs ${L_DIRS})
  set(files ${own_files})
  set(below)
  foreach(dep IN LISTS L_BELOW)
    if(NOT TARGET mcastfib_${dep})
      message(FATAL_ERROR "layer ${name}: ${dep} is not a layer declared before it")
    endif()
    get_property(dep_dirs GLOBAL PROPERTY MCASTFIB_LAYER_DIRS_${dep})
    get_property(dep_files GLOBAL PROPERTY MCASTFIB_LAYER_FILES_${dep})
    list(APPEND dirs ${dep_dirs})
    list(APPEND files ${dep_files})
    list(APPEND below mcastfib_${dep})
  endforeach()
  list(REMOVE_DUPLICATES dirs)
  list(REMOVE_DUPLICATES files)
  set_property(GLOBAL PROPERTY MCASTFIB_LAYER_DIRS_${name} ${dirs})
  set_property(GLOBAL PROPERTY MCASTFIB_LAYER_FILES_${name} ${files})

  set(stage ${CMAKE_BINARY_DIR}/layers/${name})
  file(REMOVE_RECURSE ${stage})
  file(MAKE_DIRECTORY ${stage}/src ${stage}/gen)
  foreach(d IN LISTS dirs)
    file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/gen/${d})
    file(CREATE_LINK ${CMAKE_SOURCE_DIR}/${d} ${stage}/src/${d} SYMBOLIC)
    file(CREATE_LINK ${CMAKE_BINARY_DIR}/gen/${d} ${stage}/gen/${d} SYMBOLIC)
  endforeach()
  foreach(f IN LISTS files)
    file(RELATIVE_PATH rel ${CMAKE_SOURCE_DIR} ${f})
    get_filename_component(d ${rel} DIRECTORY)
    get_filename_component(stem ${rel} NAME_WE)
    if(d IN_LIST dirs)
      continue()
    endif()
    if(f MATCHES "\\.h$")
      file(MAKE_DIRECTORY ${stage}/src/${d})
      file(CREATE_LINK ${f} ${stage}/src/${rel} SYMBOLIC)
    elseif(f MATCHES "\\.gant$")
      file(MAKE_DIRECTORY ${stage}/gen/${d})
      file(CREATE_LINK ${CMAKE_BINARY_DIR}/gen/${d}/${stem}.h ${stage}/gen/${d}/${stem}.h SYMBOLIC)
    endif()
  endforeach()

  set(sources)
  set(gen_headers)
  set(headers)
  foreach(f IN LISTS own_files)
    if(f MATCHES "\\.cpp$")
      list(APPEND sources ${f})
    elseif(f MATCHES "\\.h$")
      list(APPEND headers ${f})
    elseif(f MATCHES "\\.gant$")
      gant_generate(${f} gen_h gen_cpp)
      list(APPEND sources ${gen_cpp})
      list(APPEND gen_headers ${gen_h})
    endif()
  endforeach()
  set(tests)
  foreach(d IN LISTS L_DIRS)
    file(GLOB dir_tests CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${d}/*_test.cpp)
    list(APPEND tests ${dir_tests})
  endforeach()
  foreach(h IN LISTS L_INTERNAL)
    if(NOT EXISTS ${CMAKE_SOURCE_DIR}/${h})
      message(FATAL_ERROR "layer ${name}: internal header ${h} does not exist")
    endif()
    list(REMOVE_ITEM headers ${CMAKE_SOURCE_DIR}/${h})
  endforeach()

  add_library(mcastfib_${name} OBJECT ${sources} ${gen_headers})
  target_include_directories(mcastfib_${name} PRIVATE ${stage}/src ${stage}/gen)
  target_link_libraries(mcastfib_${name} PUBLIC ${below})

  set(MCASTFIB_LAYERS ${MCASTFIB_LAYERS} ${name} PARENT_SCOPE)
  set(MCASTFIB_DIRS ${MCASTFIB_DIRS} ${L_DIRS} PARENT_SCOPE)
  set(public_headers ${public_headers} ${headers} PARENT_SCOPE)
  set(generated_headers ${generated_headers} ${gen_headers} PARENT_SCOPE)
  set(test_sources ${test_sources} ${tests} PARENT_SCOPE)
endfunction()
