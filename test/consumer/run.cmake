# Installs the library into a scratch prefix and builds a separate project
# against it with find_package(McastFib): proves the installed package works.
set(prefix ${BINARY_DIR}/consumer-install)
set(build ${BINARY_DIR}/consumer-build)
file(REMOVE_RECURSE ${prefix} ${build})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BINARY_DIR} --prefix ${prefix}
                RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "install failed")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR}/test/consumer -B ${build}
                        -DCMAKE_PREFIX_PATH=${prefix} "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}"
                RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "consumer configure failed")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${build} RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "consumer build failed")
endif()
execute_process(COMMAND ${build}/consumer OUTPUT_VARIABLE out RESULT_VARIABLE rc)
if(rc OR NOT out MATCHES "vlan10 Floodset|Ethernet3")
  message(FATAL_ERROR "consumer run failed: ${out}")
endif()
message(STATUS "consumer printed: ${out}")
