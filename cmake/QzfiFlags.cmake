# What every target of ours is compiled and linked with.
add_library(qzfi_flags INTERFACE)
target_compile_features(qzfi_flags INTERFACE cxx_std_20 c_std_11)
target_compile_options(qzfi_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wmissing-declarations -Werror
  -fstack-protector-strong -fno-omit-frame-pointer)
if(QZFI_SANITIZE)
  # -Og and no variable tracking: half the compile time of -O1, which the sanitizers' code makes long. Tests go without
  # the checks for undefined behaviour, which would double theirs: what is tested has them.
  define_property(TARGET PROPERTY QZFI_IS_TEST INITIALIZE_FROM_VARIABLE QZFI_IS_TEST)
  target_compile_options(qzfi_flags INTERFACE -Og $<$<CXX_COMPILER_ID:GNU>:-fno-var-tracking>
                                              -fsanitize=${QZFI_SANITIZE} -fno-sanitize-recover=all
                                              $<$<BOOL:$<TARGET_PROPERTY:QZFI_IS_TEST>>:-fno-sanitize=undefined>)
  target_link_options(qzfi_flags INTERFACE -fsanitize=${QZFI_SANITIZE})
  # The sanitizer's runtime in a library of its own, as it is with g++: the calls that tests wrap are then not its own.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang" AND NOT QZFI_FUZZ)
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libclang_rt.asan-x86_64.so
      OUTPUT_VARIABLE runtime OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    cmake_path(GET runtime PARENT_PATH runtime)
    target_link_options(qzfi_flags INTERFACE -shared-libsan -Wl,-rpath,${runtime})
  endif()
elseif(CMAKE_BUILD_TYPE STREQUAL "Release")
  set(CMAKE_C_FLAGS_RELEASE "-O2 -DNDEBUG")
  set(CMAKE_CXX_FLAGS_RELEASE "-O2 -DNDEBUG")
  target_compile_options(qzfi_flags INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 -fstack-clash-protection
                                              -fcf-protection)
endif()
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_CXX_EXTENSIONS OFF)
