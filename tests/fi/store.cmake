# Stores and what goes into them.
foreach(name IN ITEMS library engine_host mounts manifest report fiid catalog store store_lost store_places store_locks
    catalog_command)
  qzfi_add_test(${name}_test ${name}_test.cpp store_support.cpp)
  target_link_libraries(${name}_test PRIVATE qzfi_fi)
endforeach()
target_compile_definitions(fiid_test PRIVATE SCHEMA="${PROJECT_SOURCE_DIR}/resources/qfiid_schema.xsd")
# The steps by which a store changes can be made to fail, or to kill.
target_sources(store_test PRIVATE step_faults.cpp)
foreach(call IN ITEMS mkdirat renameat2 renameat unlinkat fsync syncfs flock openat)
  target_link_options(store_test PRIVATE -Wl,--wrap=${call})
endforeach()
