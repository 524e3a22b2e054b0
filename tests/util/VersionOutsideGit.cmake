# cmake -P script: configures a copy of the source tree that is not a git checkout (no
# build) and checks that the generated version header carries sixteen zeros as commit id.
#   KX_SOURCE_DIR  the project's source tree
#   KX_WORK_DIR    scratch folder, wiped first
#   KX_GENERATOR   CMake generator to configure with
set(copy "${KX_WORK_DIR}/source")
set(build "${KX_WORK_DIR}/build")
file(REMOVE_RECURSE "${KX_WORK_DIR}")
file(MAKE_DIRECTORY "${copy}")

# Everything but the git metadata and build folders (recognised by their cache file).
file(GLOB entries RELATIVE "${KX_SOURCE_DIR}" LIST_DIRECTORIES true "${KX_SOURCE_DIR}/*")
foreach(entry IN LISTS entries)
  set(path "${KX_SOURCE_DIR}/${entry}")
  if(entry MATCHES "^\\.git" OR EXISTS "${path}/CMakeCache.txt")
    continue()
  endif()
  file(COPY "${path}" DESTINATION "${copy}")
endforeach()
if(EXISTS "${copy}/.git" OR NOT EXISTS "${copy}/util/CMakeLists.txt")
  message(FATAL_ERROR "the copy of the source tree is not what it should be")
endif()

execute_process(
  COMMAND "${CMAKE_COMMAND}" -S "${copy}" -B "${build}" -G "${KX_GENERATOR}"
    -DKX_BUILD_TESTS=OFF -DKX_BUILD_TOOLS=OFF -DKX_BUILD_BENCH=OFF
  RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "configuring the copy failed (${result}):\n${out}\n${err}")
endif()

file(STRINGS "${build}/generated/kxVersionConfig.h" commit REGEX "KX_VERSION_COMMIT_ID")
if(NOT commit MATCHES "\"0000000000000000\"")
  message(FATAL_ERROR "expected sixteen zeros outside a checkout, got: ${commit}")
endif()
file(REMOVE_RECURSE "${KX_WORK_DIR}")
