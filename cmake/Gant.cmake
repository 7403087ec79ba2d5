# Runs the type generator over one schema: dir/Name.gant produces
# gen/dir/Name.h (the types) and gen/dir/Name.gen.cpp (tables and codecs).
set(GANT_GENERATOR ${CMAKE_CURRENT_LIST_DIR}/../gant/gen/gantgen.py)
file(GLOB GANT_GENERATOR_SOURCES ${CMAKE_CURRENT_LIST_DIR}/../gant/gen/*.py)

function(gant_generate schema out_h out_cpp)
  file(RELATIVE_PATH rel ${CMAKE_SOURCE_DIR} ${schema})
  get_filename_component(rel_dir ${rel} DIRECTORY)
  get_filename_component(stem ${rel} NAME_WE)
  set(h ${CMAKE_BINARY_DIR}/gen/${rel_dir}/${stem}.h)
  set(cpp ${CMAKE_BINARY_DIR}/gen/${rel_dir}/${stem}.gen.cpp)
  add_custom_command(
    OUTPUT ${h} ${cpp}
    COMMAND ${Python3_EXECUTABLE} ${GANT_GENERATOR} ${schema} --header ${h} --source ${cpp}
            --include ${rel_dir}/${stem}.h
    DEPENDS ${schema} ${GANT_GENERATOR_SOURCES}
    COMMENT "gantgen ${rel}"
    VERBATIM)
  set(${out_h} ${h} PARENT_SCOPE)
  set(${out_cpp} ${cpp} PARENT_SCOPE)
endfunction()
