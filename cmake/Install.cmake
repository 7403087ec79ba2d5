include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS mcastfib EXPORT McastFibTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
# The public headers only: a layer's internal headers (mcastfib_layer
# INTERNAL) stay behind, and install_consumer builds against what is left.
foreach(h IN LISTS public_headers)
  file(RELATIVE_PATH rel ${CMAKE_SOURCE_DIR} ${h})
  get_filename_component(d ${rel} DIRECTORY)
  install(FILES ${h} DESTINATION include/mcastfib/${d})
endforeach()
foreach(h IN LISTS generated_headers)
  file(RELATIVE_PATH rel ${CMAKE_BINARY_DIR}/gen ${h})
  get_filename_component(d ${rel} DIRECTORY)
  install(FILES ${h} DESTINATION include/mcastfib/${d})
endforeach()
install(FILES mcastfib.h DESTINATION include/mcastfib)
install(EXPORT McastFibTargets NAMESPACE McastFib::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/McastFib)
configure_package_config_file(cmake/McastFibConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/McastFibConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/McastFib)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/McastFibConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/McastFibConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/McastFibConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/McastFib)
