# What lies in "resources" below an installation root: message bundles, compiled from their sources, and catalog files.
# The build tree holds the same files in the same places, below QZFI_RESOURCES.
set(QZFI_RESOURCES ${PROJECT_BINARY_DIR}/resources)
if(NOT ICU_GENRB_EXECUTABLE)
  message(FATAL_ERROR "genrb, ICU's compiler of resource bundles, is missing (Debian: icu-devtools)")
endif()
add_custom_target(qzfi_resources ALL)

# qzfi_add_bundle(NAME LOCALE SOURCE): the bundle of a locale, compiled from SOURCE as "NAME/LOCALE.res".
function(qzfi_add_bundle name locale source)
  cmake_path(GET source PARENT_PATH directory)
  cmake_path(GET source FILENAME file)
  set(bundle ${QZFI_RESOURCES}/${name}/${locale}.res)
  # Only the file names are given, so that the bundle is the same wherever it is built.
  add_custom_command(OUTPUT ${bundle}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${QZFI_RESOURCES}/${name}
    COMMAND ${ICU_GENRB_EXECUTABLE} --quiet --encoding UTF-8 --sourcedir ${directory}
            --destdir ${QZFI_RESOURCES}/${name} ${file}
    DEPENDS ${source}
    VERBATIM)
  add_custom_target(qzfi_bundle_${name}_${locale} DEPENDS ${bundle})
  add_dependencies(qzfi_resources qzfi_bundle_${name}_${locale})
  install(FILES ${bundle} DESTINATION resources/${name} COMPONENT library)
endfunction()

# qzfi_add_catalog(FILE): a catalog file, given relative to the sources of the resources.
function(qzfi_add_catalog file)
  configure_file(${PROJECT_SOURCE_DIR}/resources/${file} ${QZFI_RESOURCES}/${file} COPYONLY)
  cmake_path(GET file PARENT_PATH directory)
  install(FILES ${PROJECT_SOURCE_DIR}/resources/${file} DESTINATION resources/${directory} COMPONENT library)
endfunction()

foreach(locale IN ITEMS root ja zh)
  qzfi_add_bundle(libfi ${locale} ${PROJECT_SOURCE_DIR}/resources/${locale}.txt)
endforeach()
foreach(directory IN ITEMS "" ja_JP.UTF-8/ zh_CN.UTF-8/)
  qzfi_add_catalog(${directory}ZELTqzfi.cat)
endforeach()
