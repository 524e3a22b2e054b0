# cmake -P script: install, build and run the consumer through find_package, then compile
# it again with the flags pkg-config gives.
set(prefix "${KX_WORK_DIR}/prefix")
set(build "${KX_WORK_DIR}/build")
file(REMOVE_RECURSE "${KX_WORK_DIR}")

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "command failed (${result}): ${ARGN}\n${out}\n${err}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install "${KX_BUILD_DIR}" --prefix "${prefix}")
foreach(f lib/libkxCommonAddOns.so.3.0 lib/libkxSystem.so lib/libkxSceneGraph.so
          include/kxCommonAddOns/kxCommonAddOns.h include/kxCommonAddOns/Wm4Foundation.h
          lib/cmake/kxCommonAddOns/kxCommonAddOnsConfig.cmake lib/pkgconfig/kxCommonAddOns.pc)
  if(NOT EXISTS "${prefix}/${f}")
    message(FATAL_ERROR "install is missing ${f}")
  endif()
endforeach()
run(${CMAKE_COMMAND} -S "${KX_CONSUMER_SOURCE}" -B "${build}" -G "${KX_GENERATOR}"
    "-DCMAKE_PREFIX_PATH=${prefix}" "-DCMAKE_CXX_FLAGS=${KX_CONSUMER_FLAGS}")
run(${CMAKE_COMMAND} --build "${build}")
run("${build}/consumer")
if(NOT last_output MATCHES "kxCommonAddOns 3\\.0\\.0\\.1297 #[0-9a-f]+ 2026-2")
  message(FATAL_ERROR "unexpected consumer output: ${last_output}")
endif()

find_program(PKG_CONFIG pkg-config REQUIRED)
set(ENV{PKG_CONFIG_PATH} "${prefix}/lib/pkgconfig")
run(${PKG_CONFIG} --cflags --libs kxCommonAddOns)
separate_arguments(pc_flags UNIX_COMMAND "${last_output}")
separate_arguments(extra UNIX_COMMAND "${KX_CONSUMER_FLAGS}")
run(c++ -std=c++17 ${extra} "${KX_CONSUMER_SOURCE}/consumer.cpp" -o "${build}/consumer-pc" ${pc_flags}
    "-Wl,-rpath,${prefix}/lib")
run("${build}/consumer-pc")
