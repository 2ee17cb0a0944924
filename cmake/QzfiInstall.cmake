# Install rules: library, headers, pkg-config file, CMake package. Nothing installed names the prefix, so that an
# installation can be moved as a whole. The components are what QzfiPackages.cmake makes packages of.
include(CMakePackageConfigHelpers)

install(TARGETS qzfi EXPORT qzfiTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# A host finds these two below the root: libfi.so beside the library, and its provider plugins.
if(QZFI_FI)
  install(TARGETS fi LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT providers)
  install(TARGETS provider_btrfs provider_reflink provider_copy
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/qzfi/plugins COMPONENT providers)
endif()
install(FILES ${PROJECT_SOURCE_DIR}/include/qzfi.h ${PROJECT_SOURCE_DIR}/include/qzfi_fi.h
              ${PROJECT_SOURCE_DIR}/include/qzfi_provider.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/qzfi DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development
  FILES_MATCHING PATTERN "*.h" PATTERN "*.def")

set(qzfi_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/qzfi)
install(EXPORT qzfiTargets NAMESPACE qzfi:: DESTINATION ${qzfi_package_dir} COMPONENT development)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/qzfiConfig.cmake.in
  ${PROJECT_BINARY_DIR}/qzfiConfig.cmake
  INSTALL_DESTINATION ${qzfi_package_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qzfiConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/qzfiConfig.cmake ${PROJECT_BINARY_DIR}/qzfiConfigVersion.cmake
  DESTINATION ${qzfi_package_dir} COMPONENT development)

# The pkg-config file finds the prefix from where it lies itself.
set(qzfi_pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX}/${qzfi_pc_dir}
  OUTPUT_VARIABLE qzfi_prefix_from_pc)
configure_file(${PROJECT_SOURCE_DIR}/cmake/qzfi.pc.in ${PROJECT_BINARY_DIR}/qzfi.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qzfi.pc DESTINATION ${qzfi_pc_dir} COMPONENT development)
