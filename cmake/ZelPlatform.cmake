# Which platform the library is built and linked against:
#   standin  the stand-in in platform/ (libkro and the host services, built here; default);
#   host     the host's own platform: the libraries libkro and libhost_services and the headers
#            kro/dm.h, host/module_dt.h, ... as installed on the build machine. They are found
#            with find_path/find_library under ZEL_HOST_PLATFORM_ROOT (or the default search
#            paths); ZEL_HOST_PLATFORM_INCLUDE_DIR, ZEL_HOST_KRO_LIBRARY and
#            ZEL_HOST_SERVICES_LIBRARY name them directly. The suite, the benchmarks and the fuzz
#            targets observe the stand-in from inside and are not built then.
# Either way the targets zel_platform_headers (include path of the platform headers) and
# ZEL_PLATFORM_LIBS (what the library links) are defined here.
set(ZEL_PLATFORM "standin" CACHE STRING "Platform to build against: standin (platform/) or host")
set_property(CACHE ZEL_PLATFORM PROPERTY STRINGS standin host)

if(ZEL_PLATFORM STREQUAL "standin")
  add_subdirectory(platform)
  set(ZEL_PLATFORM_LIBS kro host_services)
  set(ZEL_PLATFORM_STATIC_LIBS kro_static host_services_static)
elseif(ZEL_PLATFORM STREQUAL "host")
  set(ZEL_HOST_PLATFORM_ROOT "" CACHE PATH "Prefix of the host platform's headers and libraries")
  set(hints)
  if(ZEL_HOST_PLATFORM_ROOT)
    set(hints HINTS ${ZEL_HOST_PLATFORM_ROOT})
  endif()
  find_path(ZEL_HOST_PLATFORM_INCLUDE_DIR kro/dm.h ${hints} PATH_SUFFIXES include)
  find_library(ZEL_HOST_KRO_LIBRARY kro ${hints} PATH_SUFFIXES lib lib64)
  find_library(ZEL_HOST_SERVICES_LIBRARY host_services ${hints} PATH_SUFFIXES lib lib64)
  if(NOT ZEL_HOST_PLATFORM_INCLUDE_DIR OR NOT EXISTS ${ZEL_HOST_PLATFORM_INCLUDE_DIR}/host/module_dt.h
     OR NOT ZEL_HOST_KRO_LIBRARY OR NOT ZEL_HOST_SERVICES_LIBRARY)
    message(FATAL_ERROR "ZEL_PLATFORM=host: the host platform was not found (headers kro/dm.h and "
      "host/module_dt.h: '${ZEL_HOST_PLATFORM_INCLUDE_DIR}', libkro: '${ZEL_HOST_KRO_LIBRARY}', "
      "libhost_services: '${ZEL_HOST_SERVICES_LIBRARY}'); set ZEL_HOST_PLATFORM_ROOT")
  endif()
  message(STATUS "Host platform: ${ZEL_HOST_PLATFORM_INCLUDE_DIR}, ${ZEL_HOST_KRO_LIBRARY}, "
    "${ZEL_HOST_SERVICES_LIBRARY}")
  add_library(zel_platform_headers INTERFACE)
  target_include_directories(zel_platform_headers INTERFACE ${ZEL_HOST_PLATFORM_INCLUDE_DIR})
  set(ZEL_PLATFORM_LIBS ${ZEL_HOST_SERVICES_LIBRARY} ${ZEL_HOST_KRO_LIBRARY})
  set(ZEL_PLATFORM_STATIC_LIBS ${ZEL_PLATFORM_LIBS})
  foreach(part TESTS BENCH)
    if(ZEL_BUILD_${part})
      message(STATUS "ZEL_PLATFORM=host: ZEL_BUILD_${part} turned off (it needs the stand-in)")
      set(ZEL_BUILD_${part} OFF CACHE BOOL "" FORCE)
    endif()
  endforeach()
  if(ZEL_FUZZ)
    message(FATAL_ERROR "ZEL_FUZZ needs ZEL_PLATFORM=standin")
  endif()
else()
  message(FATAL_ERROR "ZEL_PLATFORM must be standin or host")
endif()
