# cmake -P script: configures a copy of the source tree without git metadata or build
# folders and checks that the generated version header carries sixteen zeros as commit id.
set(copy "${KX_WORK_DIR}/source")
file(REMOVE_RECURSE "${KX_WORK_DIR}")
file(GLOB entries RELATIVE "${KX_SOURCE_DIR}" LIST_DIRECTORIES true "${KX_SOURCE_DIR}/*")
foreach(entry IN LISTS entries)
  if(NOT entry MATCHES "^\\.git" AND NOT EXISTS "${KX_SOURCE_DIR}/${entry}/CMakeCache.txt")
    file(COPY "${KX_SOURCE_DIR}/${entry}" DESTINATION "${copy}")
  endif()
endforeach()
if(EXISTS "${copy}/.git" OR NOT EXISTS "${copy}/util/CMakeLists.txt")
  message(FATAL_ERROR "the copy of the source tree is not what it should be")
endif()
execute_process(
  COMMAND "${CMAKE_COMMAND}" -S "${copy}" -B "${KX_WORK_DIR}/build" -G "${KX_GENERATOR}"
    -DKX_BUILD_TESTS=OFF -DKX_BUILD_TOOLS=OFF -DKX_BUILD_BENCH=OFF
  RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "configuring the copy failed (${result}):\n${out}\n${err}")
endif()
file(STRINGS "${KX_WORK_DIR}/build/generated/kxVersionConfig.h" commit REGEX "KX_VERSION_COMMIT_ID")
if(NOT commit MATCHES "\"0000000000000000\"")
  message(FATAL_ERROR "expected sixteen zeros outside a checkout, got: ${commit}")
endif()
file(REMOVE_RECURSE "${KX_WORK_DIR}")
