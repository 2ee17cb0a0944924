# Hosts of libfi.so: programs over libqzfi.so, which load the library and the plugins that were built.
function(qzfi_add_host_test name)
  add_executable(${name} ${ARGN} host.cpp ${PROJECT_SOURCE_DIR}/tests/support/loop_filesystem.cpp)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/tests)
  target_compile_definitions(${name} PRIVATE _GNU_SOURCE FI_LIBRARY="$<TARGET_FILE:fi>"
    PLUGIN_DIRECTORY="$<TARGET_FILE_DIR:provider_copy>")
  target_link_libraries(${name} PRIVATE qzfi_flags qzfi GTest::gtest_main Threads::Threads ${CMAKE_DL_LIBS})
  add_dependencies(${name} fi provider_btrfs provider_reflink provider_copy)
  gtest_discover_tests(${name} TEST_PREFIX ${name}. DISCOVERY_TIMEOUT 60)
endfunction()
qzfi_add_host_test(fi_life_test life_test.cpp)
target_link_libraries(fi_life_test PRIVATE SQLite::SQLite3)
qzfi_add_host_test(fi_commands_test commands_test.cpp)
qzfi_add_host_test(fi_together_test together_test.cpp)

qzfi_add_host_test(fi_filesystems_test filesystems_test.cpp)
qzfi_add_host_test(fi_providers_test providers_test.cpp)
# Plugins with one flaw each, in a directory of their own.
set(flaws crash_entry crash_start exit_start refuse_start small newer no_table no_name taken good crash_stop hang_start
  hang_closed find_files talk crash_older)
foreach(name IN LISTS flaws)
  list(FIND flaws ${name} flaw)
  math(EXPR flaw "${flaw} + 1")
  add_library(bad_provider_${name} MODULE bad_provider.cpp)
  set_target_properties(bad_provider_${name} PROPERTIES PREFIX "" OUTPUT_NAME qzfi_provider_${name}
    LIBRARY_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/bad_plugins CXX_VISIBILITY_PRESET hidden)
  target_include_directories(bad_provider_${name} PRIVATE ${PROJECT_SOURCE_DIR}/include)
  target_compile_definitions(bad_provider_${name} PRIVATE FLAW=${flaw} NAME="${name}")
  target_link_libraries(bad_provider_${name} PRIVATE qzfi_flags)
  add_dependencies(fi_providers_test bad_provider_${name})
endforeach()
set(entries fi_entries.cpp fi_entries_images.cpp fi_entries_library.cpp fi_entries_queries.cpp)
list(TRANSFORM entries PREPEND ${PROJECT_SOURCE_DIR}/fi/ OUTPUT_VARIABLE entries)
qzfi_add_test(entry_faults_test entry_faults_test.cpp ${entries})
target_link_libraries(entry_faults_test PRIVATE qzfi_fi)
add_dependencies(entry_faults_test provider_copy)
target_compile_definitions(entry_faults_test PRIVATE PLUGIN_DIRECTORY="$<TARGET_FILE_DIR:provider_copy>/")
qzfi_add_test(trial_test trial_test.cpp)
target_link_libraries(trial_test PRIVATE qzfi_fi)
add_dependencies(trial_test qzfi_provider_probe bad_provider_hang_start bad_provider_hang_closed
  bad_provider_find_files bad_provider_talk bad_provider_good)
target_compile_definitions(trial_test PRIVATE BAD_PLUGIN_DIRECTORY="${CMAKE_CURRENT_BINARY_DIR}/bad_plugins"
  TRIAL_PROGRAM="$<TARGET_FILE:qzfi_provider_probe>")
target_compile_definitions(fi_providers_test PRIVATE BAD_PLUGIN_DIRECTORY="${CMAKE_CURRENT_BINARY_DIR}/bad_plugins")
