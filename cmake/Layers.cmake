# The library is built in layers, one OBJECT library per layer, combined
# into the one shared library. A layer compiles against a staged include
# tree that holds only its own folders and those of the layers below it
# (symbolic links to the source folders and to their generated headers), so
# an include that reaches up the order names a file the compiler cannot
# find, and the build fails there.
#
#   mcastfib_layer(NAME DIRS folder... [BELOW layer...] [INTERNAL header...])
#
# BELOW names the layers this one uses directly; the layers they use come
# with them. INTERNAL lists headers (relative to the source root) that only
# the library's own sources include: they are not installed.
#
# Sets in the caller's scope, accumulated over the layers:
#   MCASTFIB_LAYERS, public_headers, generated_headers, test_sources.

function(mcastfib_layer name)
  cmake_parse_arguments(L "" "" "DIRS;BELOW;INTERNAL" ${ARGN})
  set(dirs ${L_DIRS})
  set(below)
  foreach(dep IN LISTS L_BELOW)
    if(NOT TARGET mcastfib_${dep})
      message(FATAL_ERROR "layer ${name}: ${dep} is not a layer declared before it")
    endif()
    get_property(dep_dirs GLOBAL PROPERTY MCASTFIB_LAYER_DIRS_${dep})
    list(APPEND dirs ${dep_dirs})
    list(APPEND below mcastfib_${dep})
  endforeach()
  list(REMOVE_DUPLICATES dirs)
  set_property(GLOBAL PROPERTY MCASTFIB_LAYER_DIRS_${name} ${dirs})

  set(stage ${CMAKE_BINARY_DIR}/layers/${name})
  file(REMOVE_RECURSE ${stage})
  file(MAKE_DIRECTORY ${stage}/src ${stage}/gen)
  foreach(d IN LISTS dirs)
    file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/gen/${d})
    file(CREATE_LINK ${CMAKE_SOURCE_DIR}/${d} ${stage}/src/${d} SYMBOLIC)
    file(CREATE_LINK ${CMAKE_BINARY_DIR}/gen/${d} ${stage}/gen/${d} SYMBOLIC)
  endforeach()

  set(sources)
  set(gen_headers)
  set(headers)
  set(tests)
  foreach(d IN LISTS L_DIRS)
    file(GLOB srcs CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${d}/*.cpp)
    file(GLOB dir_tests CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${d}/*_test.cpp)
    file(GLOB hdrs CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${d}/*.h)
    file(GLOB schemas CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${d}/*.gant)
    if(dir_tests)
      list(REMOVE_ITEM srcs ${dir_tests})
    endif()
    list(APPEND sources ${srcs})
    list(APPEND tests ${dir_tests})
    list(APPEND headers ${hdrs})
    foreach(schema IN LISTS schemas)
      gant_generate(${schema} gen_h gen_cpp)
      list(APPEND sources ${gen_cpp})
      list(APPEND gen_headers ${gen_h})
    endforeach()
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
  set(public_headers ${public_headers} ${headers} PARENT_SCOPE)
  set(generated_headers ${generated_headers} ${gen_headers} PARENT_SCOPE)
  set(test_sources ${test_sources} ${tests} PARENT_SCOPE)
endfunction()
