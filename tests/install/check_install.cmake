file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix} RESULT_VARIABLE rc
  OUTPUT_QUIET)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "install failed")
endif()

# The stand-in's headers live under include/zel_platform/, away from where a real platform's
# kro/ and host/ would be, and its test probes are not installed.
foreach(bad include/kro include/host include/zel_platform/kro/probe.h
    include/zel_platform/host/probe.h include/zel_platform/host/fu_probe.h)
  if(EXISTS ${prefix}/${bad})
    message(FATAL_ERROR "installed where it must not be: ${bad}")
  endif()
endforeach()
foreach(good include/zel/version.h include/zel_platform/kro/dm.h include/zel_platform/host/module_dt.h)
  if(NOT EXISTS ${prefix}/${good})
    message(FATAL_ERROR "not installed: ${good}")
  endif()
endforeach()

# find_package
execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR}/consumer -B ${WORK_DIR}/cmake-build
  -G ${GENERATOR} -DCMAKE_PREFIX_PATH=${prefix} RESULT_VARIABLE rc OUTPUT_QUIET)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "consumer configure failed")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build RESULT_VARIABLE rc OUTPUT_QUIET)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "consumer build failed")
endif()
execute_process(COMMAND ${WORK_DIR}/cmake-build/consumer RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "consumer (find_package) failed: ${rc}")
endif()

# pkg-config
find_program(PKG_CONFIG pkg-config)
if(PKG_CONFIG)
  file(GLOB pcdir ${prefix}/lib*/pkgconfig ${prefix}/lib/*/pkgconfig)
  set(ENV{PKG_CONFIG_PATH} "${pcdir}")
  execute_process(COMMAND ${PKG_CONFIG} --cflags --libs zel_utils OUTPUT_VARIABLE flags
    OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "pkg-config does not know zel_utils")
  endif()
  separate_arguments(flags UNIX_COMMAND "${flags}")
  file(GLOB libdir ${prefix}/lib*/libzel_utils.so ${prefix}/lib/*/libzel_utils.so)
  get_filename_component(libdir "${libdir}" DIRECTORY)
  execute_process(COMMAND cc -std=c99 -Wall -Werror ${SOURCE_DIR}/consumer/main.c ${flags}
    -Wl,-rpath,${libdir} -o ${WORK_DIR}/pc-consumer RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "pkg-config consumer build failed")
  endif()
  execute_process(COMMAND ${WORK_DIR}/pc-consumer RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "consumer (pkg-config) failed: ${rc}")
  endif()
endif()
