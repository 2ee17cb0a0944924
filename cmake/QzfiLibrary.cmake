# libqzfi.so and libqzfi_static.a, of the same objects.
find_package(Threads REQUIRED)
find_package(ICU REQUIRED COMPONENTS uc i18n)
find_library(QZFI_ACE ACE REQUIRED)

add_library(qzfi_objects OBJECT
  api/qzfiapi_bind.cpp
  api/qzfiapi_errmsg.cpp
  api/qzfiapi_forward.cpp
  api/qzfiapi_start.cpp
  err/qzfierrhandling_errors.cpp
  err/qzfierrhandling_handler.cpp
  err/qzfierrhandling_messages.cpp
  err/qzfierrhandling_stores.cpp
  log/qzfilogmsg_log.cpp
  log/qzfilogmsg_trace.cpp
  log/qzfilogmsg2_dump.cpp
  log/qzfilogmsg2_dump_names.cpp
  log/qzfilogmsg2_dump_records.cpp
  log/qzfilogmsg2_tree.cpp
  util/qzfiutil_catalog.cpp
  util/qzfiutil_child.cpp
  util/qzfiutil_context.cpp
  util/qzfiutil_escape.cpp
  util/qzfiutil_exchange.cpp
  util/qzfiutil_format.cpp
  util/qzfiutil_hash.cpp
  util/qzfiutil_locale.cpp
  util/qzfiutil_messages.cpp
  util/qzfiutil_objectid.cpp
  util/qzfiutil_objectid_index.cpp
  util/qzfiutil_objectid_tree.cpp
  util/qzfiutil_pipe.cpp
  util/qzfiutil_plugin.cpp
  util/qzfiutil_plugin_choice.cpp
  util/qzfiutil_records_lists.cpp
  util/qzfiutil_records_nodes.cpp
  util/qzfiutil_records_texts.cpp
  util/qzfiutil_settings.cpp
  util/qzfiutil_start.cpp
  util/qzfiutil_sweep.cpp
  util/qzfiutilmachdep_device.cpp
  util/qzfiutilmachdep_name.cpp
  util/qzfiutilmachdep_path.cpp
  util/qzfiutilmachdep_system.cpp
)
# The catalog classes stand on the C++ libraries that they call, and so on exceptions; the bridge lets none out.
add_library(qzfi_catalog_objects OBJECT
  common/qzfistringtool.cpp
  msgcat/qzfiicucatalog.cpp
  msgcat/qzfiicuerrormgr.cpp
  msgcat/qzfiicumessage.cpp
  msgcat/qzfimsgcatalogmgr.cpp
)
foreach(objects IN ITEMS qzfi_objects qzfi_catalog_objects)
  set_target_properties(${objects} PROPERTIES
    POSITION_INDEPENDENT_CODE ON
    C_VISIBILITY_PRESET hidden
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
  target_compile_definitions(${objects} PRIVATE _GNU_SOURCE)
  target_compile_options(${objects} PRIVATE -fno-semantic-interposition)
  target_include_directories(${objects} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> PRIVATE ${PROJECT_SOURCE_DIR})
  target_link_libraries(${objects} PRIVATE qzfi_flags Threads::Threads ${CMAKE_DL_LIBS})
endforeach()
# No exception may cross the C boundary, and nothing below it throws.
target_compile_options(qzfi_objects PRIVATE -fno-exceptions -fno-rtti)
target_link_libraries(qzfi_catalog_objects PRIVATE ICU::i18n ICU::uc ${QZFI_ACE})

set(QZFI_MAP ${PROJECT_SOURCE_DIR}/cmake/libqzfi.map)
add_library(qzfi SHARED $<TARGET_OBJECTS:qzfi_objects> $<TARGET_OBJECTS:qzfi_catalog_objects>)
add_library(qzfi::qzfi ALIAS qzfi)
set_target_properties(qzfi PROPERTIES
  VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR} LINK_DEPENDS ${QZFI_MAP})
target_include_directories(qzfi INTERFACE
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_link_libraries(qzfi PRIVATE
  $<BUILD_INTERFACE:qzfi_flags> ICU::i18n ICU::uc ${QZFI_ACE} Threads::Threads ${CMAKE_DL_LIBS})
# Calls inside the library reach its own functions whatever the host defines; exported data stays preemptible, so
# that programs which refer to it directly share one copy with the library.
target_link_options(qzfi PRIVATE
  -Wl,--version-script=${QZFI_MAP} -Wl,-Bsymbolic-functions -Wl,-z,relro,-z,now -Wl,--as-needed)
# A sanitizer's own symbols are found in the program only.
if(NOT QZFI_SANITIZE)
  target_link_options(qzfi PRIVATE -Wl,-z,defs)
endif()

add_library(qzfi_static STATIC $<TARGET_OBJECTS:qzfi_objects> $<TARGET_OBJECTS:qzfi_catalog_objects>)
target_include_directories(qzfi_static INTERFACE ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR})
target_link_libraries(qzfi_static PUBLIC ICU::i18n ICU::uc ${QZFI_ACE} Threads::Threads ${CMAKE_DL_LIBS})
