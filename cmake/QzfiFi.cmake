# The default API implementation library, its provider plugins, and the tree engine that they share. Unlike libqzfi.so
# these are C++ throughout; no exception leaves an entry or a provider's operation.
find_package(SQLite3 REQUIRED)
find_package(LibXml2 REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(XXHASH REQUIRED IMPORTED_TARGET libxxhash)
find_library(QZFI_BTRFSUTIL btrfsutil REQUIRED)

# qzfi_inner_library(NAME SOURCES...): objects of ours that several libraries hold.
function(qzfi_inner_library name)
  add_library(${name} STATIC ${ARGN})
  set_target_properties(${name} PROPERTIES
    POSITION_INDEPENDENT_CODE ON
    C_VISIBILITY_PRESET hidden
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
  target_compile_definitions(${name} PRIVATE _GNU_SOURCE)
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
  target_link_libraries(${name} PRIVATE qzfi_flags PUBLIC Threads::Threads)
endfunction()

qzfi_inner_library(qzfi_engine
  providers/engine/engine_attributes.cpp
  providers/engine/engine_copy.cpp
  providers/engine/engine_data.cpp
  providers/engine/engine_directories.cpp
  providers/engine/engine_file.cpp
  providers/engine/engine_provider.cpp
  providers/engine/engine_remove.cpp
  providers/engine/engine_report.cpp
  providers/engine/engine_update.cpp
  providers/engine/engine_walk.cpp
  providers/engine/engine_work.cpp
)
target_link_libraries(qzfi_engine PUBLIC PkgConfig::XXHASH)

qzfi_inner_library(qzfi_fi
  fi/fi_compare.cpp
  fi/fi_engine_host.cpp
  fi/fi_enumerate.cpp
  fi/fi_errors.cpp
  fi/fi_fiid.cpp
  fi/fi_fiid_text.cpp
  fi/fi_freeze.cpp
  fi/fi_guard.cpp
  fi/fi_guard_folder.cpp
  fi/fi_images.cpp
  fi/fi_left_out.cpp
  fi/fi_import.cpp
  fi/fi_jobs.cpp
  fi/fi_library.cpp
  fi/fi_lists.cpp
  fi/fi_manifest.cpp
  fi/fi_manifest_sort.cpp
  fi/fi_mounts.cpp
  fi/fi_move.cpp
  fi/fi_place.cpp
  fi/fi_provider_trial.cpp
  fi/fi_providers.cpp
  fi/fi_queries.cpp
  fi/fi_report.cpp
  fi/fi_restore.cpp
  fi/fi_restore_copy.cpp
  fi/fi_sets.cpp
  fi/fi_store.cpp
  fi/fi_store_catalog.cpp
  fi/fi_store_copy.cpp
  fi/fi_store_folders.cpp
  fi/fi_store_image.cpp
  fi/fi_store_known.cpp
  fi/fi_store_locks.cpp
  fi/fi_store_pending.cpp
  fi/fi_store_sqlite.cpp
  fi/fi_store_unrecorded.cpp
  fi/fi_store_vfs.cpp
  fi/fi_temporary.cpp
  fi/fi_tree.cpp
  fi/fi_trees.cpp
  fi/fi_unkept.cpp
  fi/fi_unsupported.cpp
)
target_link_libraries(qzfi_fi PUBLIC qzfi_engine SQLite::SQLite3 LibXml2::LibXml2)

set(QZFI_FI_MAP ${PROJECT_SOURCE_DIR}/cmake/libfi.map)
add_library(fi MODULE fi/fi_entries.cpp fi/fi_entries_images.cpp fi/fi_entries_library.cpp
  fi/fi_entries_queries.cpp)
set_target_properties(fi PROPERTIES LINK_DEPENDS ${QZFI_FI_MAP}
  C_VISIBILITY_PRESET hidden CXX_VISIBILITY_PRESET hidden)
target_compile_definitions(fi PRIVATE _GNU_SOURCE)
target_link_libraries(fi PRIVATE qzfi_flags -Wl,--whole-archive qzfi_fi -Wl,--no-whole-archive qzfi)
# It stays in memory when a host lets go of it: SQLite keeps hold of its file access, threads that end still run code
# of it, and what it keeps for the life of the process would be lost with each unloading.
target_link_options(fi PRIVATE
  -Wl,--version-script=${QZFI_FI_MAP} -Wl,-Bsymbolic-functions -Wl,-z,relro,-z,now,-z,nodelete -Wl,--as-needed)

# Tries plugins before libfi.so loads them.
add_executable(qzfi_provider_probe fi/fi_provider_probe.cpp)
set_target_properties(qzfi_provider_probe PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib/qzfi)
target_include_directories(qzfi_provider_probe PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
target_link_libraries(qzfi_provider_probe PRIVATE qzfi_flags ${CMAKE_DL_LIBS})
add_dependencies(fi qzfi_provider_probe)
install(TARGETS qzfi_provider_probe RUNTIME DESTINATION ${CMAKE_INSTALL_LIBDIR}/qzfi COMPONENT providers)

# qzfi_provider(NAME SOURCES...): the plugin qzfi_provider_NAME.so, in the build tree's plugin directory.
set(QZFI_PROVIDER_MAP ${PROJECT_SOURCE_DIR}/cmake/provider.map)
function(qzfi_provider name)
  add_library(provider_${name} MODULE ${ARGN})
  set_target_properties(provider_${name} PROPERTIES
    OUTPUT_NAME qzfi_provider_${name} PREFIX ""
    LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib/qzfi/plugins
    LINK_DEPENDS ${QZFI_PROVIDER_MAP}
    C_VISIBILITY_PRESET hidden CXX_VISIBILITY_PRESET hidden)
  target_compile_definitions(provider_${name} PRIVATE _GNU_SOURCE)
  target_link_libraries(provider_${name} PRIVATE qzfi_flags qzfi_engine)
  target_link_options(provider_${name} PRIVATE
    -Wl,--version-script=${QZFI_PROVIDER_MAP} -Wl,-Bsymbolic-functions -Wl,-z,relro,-z,now -Wl,--as-needed)
endfunction()
qzfi_provider(btrfs providers/btrfs/btrfs.cpp providers/btrfs/subvolume.cpp)
target_link_libraries(provider_btrfs PRIVATE ${QZFI_BTRFSUTIL})
qzfi_provider(reflink providers/reflink/reflink.cpp)
qzfi_provider(copy providers/copy/copy.cpp)

# The schema of id documents, at the place that qzfi_get_fiidschemapath gives.
install(FILES ${PROJECT_SOURCE_DIR}/resources/qfiid_schema.xsd
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/qzfi/data COMPONENT providers)
