# Debian packages, made by `cpack` from a release build (scripts/package). Everything lies below the default root, where
# the library looks for its messages; what the system looks for elsewhere is linked, or laid, there too.
#
#   libqzfi7         the library and its messages          component "library"
#   qzfi-providers   libfi.so, its providers, the schema   component "providers"
#   qzfi             the command                           component "command"
#   libqzfi-dev      headers and build files               component "development"
#
# Components named NAME_system hold what only a package installs, outside the root: a plain installation leaves them out.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qzfi)
set(CPACK_PACKAGE_CONTACT "qzfi maintainers <qzfi@localhost>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr/lumen)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The packages find each other by the exact dependencies below, not by what is installed here.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(package_files ${PROJECT_BINARY_DIR}/packages)
set(package_sources ${PROJECT_SOURCE_DIR}/cmake/packages)
file(MAKE_DIRECTORY ${package_files})
# The packages' root is /usr/lumen, so this is /usr: a relative path, as an absolute one would leave the staging directory.
set(system ..)
if(CMAKE_LIBRARY_ARCHITECTURE)
  set(system_lib ${system}/lib/${CMAKE_LIBRARY_ARCHITECTURE})
else()
  set(system_lib ${system}/lib)
endif()

# qzfi_package(COMPONENT NAME SECTION SUMMARY DESCRIPTION DEPENDS): a package of a component and its NAME_system.
macro(qzfi_package component name section summary description depends)
  string(TOUPPER ${component} upper)
  list(APPEND CPACK_COMPONENTS_ALL ${component} ${component}_system)
  foreach(member IN ITEMS ${component} ${component}_system)
    string(TOUPPER ${member} upper_member)
    set(CPACK_COMPONENT_${upper_member}_GROUP ${component})
  endforeach()
  set(CPACK_COMPONENT_GROUP_${upper}_DESCRIPTION "${description}")
  set(CPACK_COMPONENT_${upper}_DESCRIPTION "${description}")
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name})
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${upper}_DESCRIPTION "${summary}\n${description}")
  set(CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS "${depends}")
  install(FILES ${package_sources}/copyright ${package_files}/changelog.gz
    DESTINATION ${system}/share/doc/${name} COMPONENT ${component}_system EXCLUDE_FROM_ALL)
endmacro()

# qzfi_package_link(COMPONENT TARGET DIRECTORY NAME): a link to a file of the root.
function(qzfi_package_link component target directory name)
  set(root ${CPACK_PACKAGING_INSTALL_PREFIX})
  cmake_path(ABSOLUTE_PATH directory BASE_DIRECTORY ${root} NORMALIZE OUTPUT_VARIABLE place)
  cmake_path(RELATIVE_PATH root BASE_DIRECTORY ${place})
  string(MAKE_C_IDENTIFIER ${place} links)
  set(links ${package_files}/links/${links})
  file(MAKE_DIRECTORY ${links})
  file(CREATE_LINK ${root}/${target} ${links}/${name} SYMBOLIC)
  install(FILES ${links}/${name} DESTINATION ${directory} COMPONENT ${component}_system EXCLUDE_FROM_ALL)
endfunction()

configure_file(${package_sources}/changelog.in ${package_files}/changelog @ONLY)
execute_process(COMMAND gzip -9 -n -c ${package_files}/changelog
  OUTPUT_FILE ${package_files}/changelog.gz COMMAND_ERROR_IS_FATAL ANY)

set(library_package libqzfi${PROJECT_VERSION_MAJOR})
set(same_version "(= ${PROJECT_VERSION})")
qzfi_package(library ${library_package} libs "frozen images: shared library"
  "Starts the framework for frozen images, which are point-in-time copies of\ndirectory trees, and forwards its operations to an implementation library." "")
qzfi_package(providers qzfi-providers admin "frozen images: default implementation and its providers"
  "Makes, keeps, compares, restores and removes images, by Btrfs snapshots,\nfiles that share their data, or full copies."
  "${library_package} ${same_version}")
qzfi_package(command qzfi admin "frozen images: command" "Freezes directory trees, and lists, compares, verifies and restores the images."
  "${library_package} ${same_version}, qzfi-providers ${same_version}")
qzfi_package(development libqzfi-dev libdevel "frozen images: development files"
  "Headers, and what pkg-config and CMake need to build programs, implementation\nlibraries and providers."
  "${library_package} ${same_version}")

# Programs find the library without a run path, and programs of other packages get the right dependency.
qzfi_package_link(library ${CMAKE_INSTALL_LIBDIR}/libqzfi.so.${PROJECT_VERSION_MAJOR} ${system_lib}
  libqzfi.so.${PROJECT_VERSION_MAJOR})
configure_file(${package_sources}/shlibs.in ${package_files}/shlibs @ONLY)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${package_files}/shlibs ${package_sources}/triggers)

qzfi_package_link(command ${CMAKE_INSTALL_BINDIR}/qzfi ${system}/bin qzfi)
qzfi_package_link(command ${CMAKE_INSTALL_DATADIR}/bash-completion/completions/qzfi
  ${system}/share/bash-completion/completions qzfi)
qzfi_package_link(command ${CMAKE_INSTALL_DATADIR}/zsh/site-functions/_qzfi ${system}/share/zsh/vendor-completions _qzfi)
qzfi_package_link(command ${CMAKE_INSTALL_DATADIR}/man/man1/qzfi.1 ${system}/share/man/man1 qzfi.1)
qzfi_package_link(development ${CMAKE_INSTALL_DATADIR}/man/man3/libqzfi.3 ${system}/share/man/man3 libqzfi.3)

# The root's own ones find the prefix from where they lie, and so cannot be linked to.
configure_file(${package_sources}/qzfi.pc.in ${package_files}/qzfi.pc @ONLY)
configure_file(${package_sources}/qzfiConfig.cmake.in ${package_files}/qzfiConfig.cmake @ONLY)
install(FILES ${package_files}/qzfi.pc DESTINATION ${system_lib}/pkgconfig COMPONENT development_system EXCLUDE_FROM_ALL)
install(FILES ${package_files}/qzfiConfig.cmake ${PROJECT_BINARY_DIR}/qzfiConfigVersion.cmake
  DESTINATION ${system_lib}/cmake/qzfi COMPONENT development_system EXCLUDE_FROM_ALL)

include(CPack)
