# Build variants and the two kinds of code the project compiles.
#
# Every library exists once per variant (default, asan, tsan); a target named X in the
# default variant is X_asan and X_tsan in the others. Executables and test suites choose
# their variants; test suites run in default and asan unless they ask for more.
#
#   kv_host_library     host code: C++20 with the standard library (user-mode kernel,
#                       testbed, tools, test support)
#   kv_driver_library   driver code: the kernel-clean mode (no C++ standard library or C
#                       library headers, only platform/nt and include/, no exceptions, no
#                       RTTI, no global constructors, warnings are errors). The image is
#                       checked after every build and refused if it pulls in what a kernel
#                       image cannot have.
#   kv_executable       a host program
#   kv_add_gtest        a GoogleTest suite registered with ctest, one ctest test per case

set(KV_ALL_VARIANTS default asan tsan)
set(KV_TEST_VARIANTS default asan)

set(KV_SFX_default "")
set(KV_SFX_asan "_asan")
set(KV_SFX_tsan "_tsan")

set(KV_FLAGS_default "")
set(KV_FLAGS_asan -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
set(KV_FLAGS_tsan -fsanitize=thread -fno-omit-frame-pointer)

set(KV_SOURCE_ROOT ${CMAKE_CURRENT_LIST_DIR}/..)
get_filename_component(KV_SOURCE_ROOT ${KV_SOURCE_ROOT} ABSOLUTE)

# Include directories of the kernel API as the driver sees it.
set(KV_KERNEL_INCLUDES ${KV_SOURCE_ROOT}/src/platform/nt ${KV_SOURCE_ROOT}/include ${KV_SOURCE_ROOT}/src)

# The kernel-clean mode. -nostdinc removes every system and compiler include directory, so
# <vector>, <stdio.h> and friends cannot be found: only the platform headers exist.
set(KV_KERNEL_OPTIONS
  -nostdinc -nostdinc++
  -fno-exceptions -fno-rtti -fno-threadsafe-statics -fno-asynchronous-unwind-tables
  # Calls into the kernel stay real calls, so the host kernel's reports name the driver
  # routine that made them (after a tail call they would name its caller).
  -fno-optimize-sibling-calls
  -Wall -Wextra -Werror -Wno-unused-parameter -Wno-missing-field-initializers
  -Wnon-virtual-dtor -Wshadow=local)

set(KV_HOST_OPTIONS -Wall -Wextra -Wno-unused-parameter -Wno-missing-field-initializers)

function(_kv_suffixed out variant)
  set(result "")
  foreach(lib IN LISTS ARGN)
    list(APPEND result "${lib}${KV_SFX_${variant}}")
  endforeach()
  set(${out} "${result}" PARENT_SCOPE)
endfunction()

function(_kv_apply_variant target variant)
  target_compile_options(${target} PRIVATE ${KV_FLAGS_${variant}})
  target_link_options(${target} PUBLIC ${KV_FLAGS_${variant}})
endfunction()

# kv_host_library(NAME n SOURCES ... [INCLUDES ...] [LINK project libs] [EXTERNAL libs])
function(kv_host_library)
  cmake_parse_arguments(A "" "NAME" "SOURCES;INCLUDES;LINK;EXTERNAL" ${ARGN})
  foreach(variant IN LISTS KV_ALL_VARIANTS)
    set(t ${A_NAME}${KV_SFX_${variant}})
    add_library(${t} STATIC EXCLUDE_FROM_ALL ${A_SOURCES})
    target_compile_options(${t} PRIVATE ${KV_HOST_OPTIONS})
    target_include_directories(${t} PUBLIC ${A_INCLUDES})
    _kv_suffixed(libs ${variant} ${A_LINK})
    target_link_libraries(${t} PUBLIC ${libs} ${A_EXTERNAL})
    _kv_apply_variant(${t} ${variant})
  endforeach()
endfunction()

# kv_driver_library(NAME n SOURCES ... [LINK project libs])
function(kv_driver_library)
  cmake_parse_arguments(A "" "NAME" "SOURCES;LINK" ${ARGN})
  foreach(variant IN LISTS KV_ALL_VARIANTS)
    set(t ${A_NAME}${KV_SFX_${variant}})
    add_library(${t} STATIC EXCLUDE_FROM_ALL ${A_SOURCES})
    target_compile_options(${t} PRIVATE ${KV_KERNEL_OPTIONS})
    target_include_directories(${t} PRIVATE ${KV_KERNEL_INCLUDES})
    _kv_suffixed(libs ${variant} ${A_LINK})
    target_link_libraries(${t} PUBLIC ${libs})
    _kv_apply_variant(${t} ${variant})
    add_custom_command(TARGET ${t} POST_BUILD
      COMMAND ${KV_SOURCE_ROOT}/cmake/check-driver-image.sh $<TARGET_FILE:${t}> ${variant}
      COMMENT "Checking ${t} for what a kernel image cannot have")
  endforeach()
endfunction()

# kv_executable(NAME n SOURCES ... [LINK ...] [EXTERNAL ...] [VARIANTS ...])
function(kv_executable)
  cmake_parse_arguments(A "" "NAME" "SOURCES;LINK;EXTERNAL;VARIANTS" ${ARGN})
  if(NOT A_VARIANTS)
    set(A_VARIANTS default)
  endif()
  foreach(variant IN LISTS A_VARIANTS)
    set(t ${A_NAME}${KV_SFX_${variant}})
    add_executable(${t} ${A_SOURCES})
    target_compile_options(${t} PRIVATE ${KV_HOST_OPTIONS})
    _kv_suffixed(libs ${variant} ${A_LINK})
    target_link_libraries(${t} PRIVATE ${libs} ${A_EXTERNAL})
    _kv_apply_variant(${t} ${variant})
  endforeach()
endfunction()

# kv_add_gtest(NAME n SOURCES ... [LINK ...] [EXTERNAL ...] [VARIANTS ...] [TIMEOUT s])
# Every case becomes one ctest test named <variant>.<Suite>.<Case> (the default variant
# has no prefix). Each test process runs with the host kernel's end-of-test checks
# (leaked pool by tag, requests never completed, verifier findings) installed by
# kv_gtest_main.
function(kv_add_gtest)
  cmake_parse_arguments(A "" "NAME;TIMEOUT" "SOURCES;LINK;EXTERNAL;VARIANTS" ${ARGN})
  if(NOT A_VARIANTS)
    set(A_VARIANTS ${KV_TEST_VARIANTS})
  endif()
  if(NOT A_TIMEOUT)
    set(A_TIMEOUT 120)
  endif()
  foreach(variant IN LISTS A_VARIANTS)
    set(t ${A_NAME}${KV_SFX_${variant}})
    add_executable(${t} ${A_SOURCES})
    target_compile_options(${t} PRIVATE ${KV_HOST_OPTIONS})
    _kv_suffixed(libs ${variant} ${A_LINK} kv_gtest_main)
    target_link_libraries(${t} PRIVATE ${libs} ${A_EXTERNAL} GTest::gmock Threads::Threads)
    _kv_apply_variant(${t} ${variant})
    if(variant STREQUAL "default")
      set(prefix "")
    else()
      set(prefix "${variant}.")
    endif()
    gtest_discover_tests(${t}
      TEST_PREFIX "${prefix}"
      DISCOVERY_MODE PRE_TEST
      DISCOVERY_TIMEOUT 60
      PROPERTIES TIMEOUT ${A_TIMEOUT}
                 LABELS ${variant}
                 ENVIRONMENT "ASAN_OPTIONS=detect_leaks=1:abort_on_error=0;UBSAN_OPTIONS=print_stacktrace=1;TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1")
  endforeach()
endfunction()
