# Library code: no exceptions, no RTTI, hidden symbols unless marked ZEL_API.
function(zel_library_target target)
  set_target_properties(${target} PROPERTIES
    POSITION_INDEPENDENT_CODE ON
    C_VISIBILITY_PRESET hidden
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
  target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti>)
  target_link_libraries(${target} PRIVATE zel_build_flags)
endfunction()

# zel_test_timeout(<var> <seconds>): a test timeout scaled by ZEL_TEST_TIMEOUT_FACTOR.
function(zel_test_timeout var seconds)
  math(EXPR scaled "${seconds} * ${ZEL_TEST_TIMEOUT_FACTOR}")
  set(${var} ${scaled} PARENT_SCOPE)
endfunction()

# zel_add_gtest(<name> SOURCES <files...> [LIBS <targets...>] [TIMEOUT <s>])
# One executable; every test case becomes its own CTest entry (its own process), so that
# process-wide state (once-only registration, the channels' name service) starts fresh.
# The executable wraps the C allocator so that tests can fail the Nth allocation.
function(zel_add_gtest name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBS" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  zel_test_timeout(ARG_TIMEOUT ${ARG_TIMEOUT})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE zel_test_support zel_utils_static ${ARG_LIBS}
    GTest::gtest_main zel_build_flags)
  target_link_options(${name} PRIVATE
    -Wl,--wrap=malloc,--wrap=calloc,--wrap=realloc,--wrap=free,--wrap=strdup)
  gtest_discover_tests(${name}
    DISCOVERY_MODE PRE_TEST
    DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT ${ARG_TIMEOUT} LABELS unit ENVIRONMENT "${ZEL_TEST_ENV}")
endfunction()

# zel_add_bench(<name> SOURCES <files...> [LIBS <targets...>])
function(zel_add_bench name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE zel_utils_static benchmark::benchmark ${ARG_LIBS} zel_build_flags)
endfunction()
