# Installs the library into a temporary prefix and builds a user's project against it
# with find_package(tessel3d): first the static build under test, then a fresh shared
# build of the library alone.
foreach(var SOURCE_DIR BUILD_DIR WORK_DIR)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "${var} is not set")
  endif()
endforeach()
file(REMOVE_RECURSE ${WORK_DIR})

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "failed (${status}): ${ARGN}\n${out}")
  endif()
endfunction()

function(build_consumer prefix tag linker_flags)
  set(consumer_build ${WORK_DIR}/consumer-${tag})
  run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/package/consumer -B ${consumer_build}
      -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release "-DCMAKE_EXE_LINKER_FLAGS=${linker_flags}")
  run(${CMAKE_COMMAND} --build ${consumer_build})
  run(${consumer_build}/app)
  message(STATUS "consumer (${tag}) built and ran against ${prefix}")
endfunction()

# Static: the build tree under test.
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/static)
build_consumer(${WORK_DIR}/static static "${LINKER_FLAGS}")

# Shared: the library alone, configured afresh.
run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/shared-build -DBUILD_SHARED_LIBS=ON
    -DCMAKE_BUILD_TYPE=Release -DTESSEL3D_BUILD_TESTS=OFF -DTESSEL3D_BENCH=OFF -DTESSEL3D_EXAMPLES=OFF)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/shared-build --parallel 2)
run(${CMAKE_COMMAND} --install ${WORK_DIR}/shared-build --prefix ${WORK_DIR}/shared)
build_consumer(${WORK_DIR}/shared shared "")
