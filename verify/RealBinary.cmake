# SPDX-License-Identifier: Apache-2.0
# Preloaded into the daemon or the runelctl under test. They depend on the kernel's calling convention and exist for
# one architecture only.
add_library(verify_dispatch MODULE
  preload/dispatch.c preload/library_calls.c preload/state.c preload/trace.c)
add_library(verify_allocations MODULE preload/allocations.c preload/state.c)
foreach(library verify_dispatch verify_allocations)
  if(RUNELD_COVERAGE)
    target_sources(${library} PRIVATE preload/end_of_main.c)
  endif()
  target_compile_options(${library} PRIVATE -Wall -Wextra -Wshadow -fno-stack-protector -fvisibility=hidden
    $<$<BOOL:${RUNELD_WERROR}>:-Werror>)
  target_compile_definitions(${library} PRIVATE $<$<BOOL:${RUNELD_COVERAGE}>:VERIFY_COVERAGE>)
  set_target_properties(${library} PROPERTIES
    PREFIX "" LIBRARY_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/verify")
  target_link_libraries(${library} PRIVATE ${CMAKE_DL_LIBS})
endforeach()

# The short form of a command, in isolated namespaces.
function(runeld_verify name timeout)
  add_test(NAME verify_${name}
    COMMAND "${PROJECT_SOURCE_DIR}/scripts/world" --no-log "${Python3_EXECUTABLE}" -B -m ${name} ${ARGN}
    WORKING_DIRECTORY "${CMAKE_CURRENT_SOURCE_DIR}")
  set_tests_properties(verify_${name} PROPERTIES
    TIMEOUT ${timeout}
    COST 45
    LABELS verify
    ENVIRONMENT "RUNELD_BIN=$<TARGET_FILE:runeld>;VERIFY_LIBRARIES=${CMAKE_BINARY_DIR}/verify;PYTHONPATH=${PROJECT_SOURCE_DIR}/tests/e2e:${CMAKE_CURRENT_SOURCE_DIR}$<$<BOOL:${RUNELD_COVERAGE}>:;VERIFY_COVERAGE=1>")
endfunction()

runeld_verify(faults 600)
runeld_verify(allocations 600)
if(RUNELD_CTL)
  runeld_verify(transfers 600 --seed 1)
  set_property(TEST verify_transfers APPEND PROPERTY ENVIRONMENT "RUNELCTL_BIN=$<TARGET_FILE:runelctl>")
endif()
# The images of a coverage build would contain the counts that the daemon writes.
if(NOT RUNELD_COVERAGE)
  runeld_verify(power_cuts 600)
endif()
