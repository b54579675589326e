# What every fuzz target is built with, in the fuzz build (fuzz/CMakeLists.txt) and in the
# replay tests of the other builds (tests/fuzz_replay/CMakeLists.txt).
#
# zel_fuzz_targets(<var>): the target names, one per fuzz/<name>.cpp (the replay driver aside).
# zel_fuzz_link(<target> <name>): links the library into <target>, the executable of fuzz
#   target <name>; targets that fail allocations on purpose get the allocator wrapped, and
#   targets that follow blocks to their free get free wrapped (their source defines the __wrap_
#   functions).
set(zel_fuzz_wrap_alloc names)
set(zel_fuzz_wrap_free itc)

function(zel_fuzz_targets var)
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/*.cpp)
  list(FILTER sources EXCLUDE REGEX "/replay_main\\.cpp$")
  set(names)
  foreach(src ${sources})
    get_filename_component(name ${src} NAME_WE)
    list(APPEND names ${name})
  endforeach()
  set(${var} ${names} PARENT_SCOPE)
endfunction()

function(zel_fuzz_link target name)
  target_link_libraries(${target} PRIVATE zel_utils_static zel_build_flags)
  if(name IN_LIST zel_fuzz_wrap_alloc)
    target_link_options(${target} PRIVATE
      -Wl,--wrap=malloc,--wrap=calloc,--wrap=realloc,--wrap=strdup)
  endif()
  if(name IN_LIST zel_fuzz_wrap_free)
    target_link_options(${target} PRIVATE -Wl,--wrap=free)
  endif()
endfunction()
