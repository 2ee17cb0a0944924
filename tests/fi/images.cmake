# Stored images behind the front end. These programs link the shared library, for that is what libfi.so uses.
function(qzfi_add_images_test name)
  add_executable(${name} ${ARGN} images_support.cpp ${PROJECT_SOURCE_DIR}/tests/support/loop_filesystem.cpp)
  target_compile_definitions(${name} PRIVATE _GNU_SOURCE FI_LIBRARY="$<TARGET_FILE:fi>"
    FI_PLUGINS="$<TARGET_FILE_DIR:provider_copy>/")
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE qzfi_flags qzfi GTest::gtest_main)
  add_dependencies(${name} fi provider_btrfs provider_reflink provider_copy)
  gtest_discover_tests(${name} TEST_PREFIX ${name}. DISCOVERY_TIMEOUT 60)
endfunction()

qzfi_add_images_test(images_restore_test images_restore_test.cpp)
qzfi_add_images_test(images_places_test images_places_test.cpp)
qzfi_add_images_test(images_compare_test images_compare_test.cpp)
qzfi_add_images_test(images_nested_test images_nested_test.cpp)
qzfi_add_images_test(images_workshop_test images_workshop_test.cpp)
qzfi_add_images_test(images_move_test images_move_test.cpp)
qzfi_add_images_test(images_unkept_test images_unkept_test.cpp)
qzfi_add_images_test(images_lists_test images_lists_test.cpp)
qzfi_add_images_test(images_sets_test images_sets_test.cpp)
qzfi_add_images_test(images_stores_test images_stores_test.cpp)
qzfi_add_images_test(images_parts_test images_parts_test.cpp)
qzfi_add_images_test(images_bounds_test images_bounds_test.cpp)
set_target_properties(images_bounds_test PROPERTIES ENABLE_EXPORTS ON) # libfi.so finds what the test puts in the way
qzfi_add_images_test(images_kill_test images_kill_test.cpp traced_process.cpp)

# Hosts that are traced, crowded, or out of room.
qzfi_add_images_test(freeze_kill_test freeze_kill_test.cpp traced_process.cpp)
qzfi_add_images_test(freeze_faults_test freeze_faults_test.cpp traced_process.cpp)
qzfi_add_images_test(freeze_full_test freeze_full_test.cpp)
qzfi_add_images_test(freeze_together_test freeze_together_test.cpp)
qzfi_add_images_test(fidelity_test fidelity_test.cpp)
qzfi_add_images_test(set_kill_test set_kill_test.cpp traced_process.cpp)
qzfi_add_images_test(set_together_test set_together_test.cpp)

# Resynchronisations.
qzfi_add_images_test(resync_full_test resync_full_test.cpp)
qzfi_add_images_test(resync_kill_test resync_kill_test.cpp traced_process.cpp)
qzfi_add_images_test(resync_together_test resync_together_test.cpp)
