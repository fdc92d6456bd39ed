# Runs of the example module: a shortened run that must account for every record, the same
# run under valgrind, and its command line (help and refused flags).
#
# Included by tests/CMakeLists.txt; run with `cmake -P` it checks exit codes and messages of
# the command-line cases (EXE names the program, EMU the emulator of a cross build, with "|"
# between its words).

if(CMAKE_SCRIPT_MODE_FILE)
  # Each case: expected exit code, text the output must contain, arguments ("|"-separated).
  set(cases
    "0@--records N@--help"
    "2@unknown option '--bogus'@--bogus"
    "2@bad value 'abc' for --records@--records|abc"
    "2@bad value '-5' for --records@--records=-5"
    "2@bad value '8' for --record-size@--record-size|8"
    "2@bad value '1.5' for --keys@--keys|1.5"
    "2@option --skew needs a value@--skew"
    "2@unexpected argument 'extra'@extra")
  foreach(c IN LISTS cases)
    string(REPLACE "@" ";" parts "${c}")
    list(GET parts 0 want_rc)
    list(GET parts 1 want_text)
    list(GET parts 2 args)
    string(REPLACE "|" ";" args "${args}")
    string(REPLACE "|" ";" emu "${EMU}")
    execute_process(COMMAND ${emu} ${EXE} ${args} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err
                    TIMEOUT 30)
    string(FIND "${out}${err}" "${want_text}" at)
    if(NOT rc STREQUAL want_rc OR at EQUAL -1)
      message(SEND_ERROR "example_module ${args}: exit ${rc} (want ${want_rc}), output:\n${out}${err}")
    endif()
    if(want_rc STREQUAL "2" AND NOT out STREQUAL "")
      message(SEND_ERROR "example_module ${args}: refused flags must not start a run:\n${out}")
    endif()
  endforeach()
  return()
endif()

if(NOT RIX_BUILD_EXAMPLES OR NOT EXISTS ${CMAKE_SOURCE_DIR}/examples/example/module.c
   OR NOT EXISTS ${CMAKE_SOURCE_DIR}/examples/CMakeLists.txt)
  return()
endif()

add_test(NAME example.example_module.short COMMAND example_module --records 20000 --seed 7)
# A few hot keys: nearly everything coalesces. Wide records over a sparse key space: almost
# nothing does, and every delivery is synced to the peer.
add_test(NAME example.example_module.hot_keys COMMAND example_module --records 20000 --keys 8 --skew 0)
add_test(NAME example.example_module.wide_records
         COMMAND example_module --records 10000 --keys 1000000 --skew 0 --record-size 1000 --sync-every 1)
set_tests_properties(example.example_module.short example.example_module.hot_keys
                     example.example_module.wide_records PROPERTIES TIMEOUT 120)

string(REPLACE ";" "|" _example_emu "${CMAKE_CROSSCOMPILING_EMULATOR}")
add_test(NAME example.example_module.usage
         COMMAND ${CMAKE_COMMAND} -DEXE=$<TARGET_FILE:example_module> "-DEMU=${_example_emu}"
                 -P ${CMAKE_CURRENT_LIST_FILE})

find_program(RIX_VALGRIND valgrind)
if(RIX_VALGRIND AND NOT RIX_SANITIZE AND NOT CMAKE_CROSSCOMPILING)
  add_test(NAME example.example_module.valgrind
           COMMAND ${RIX_VALGRIND} --error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite,indirect
                   $<TARGET_FILE:example_module> --records 10000)
  set_tests_properties(example.example_module.valgrind PROPERTIES TIMEOUT 300)
endif()
