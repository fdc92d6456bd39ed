# Export check: the dynamic symbol table of librix_autosync_orch.so holds exactly the names of
# cmake/exported-symbols.txt. Included by tests/CMakeLists.txt it registers the test; run with
# cmake -P it does the check.
if(NOT CMAKE_SCRIPT_MODE_FILE)
  if(CMAKE_NM)
    set(_rix_nm ${CMAKE_NM})
  else()
    find_program(_rix_nm NAMES nm REQUIRED)
  endif()
  add_test(NAME exports_test
    COMMAND ${CMAKE_COMMAND} -DRIX_NM=${_rix_nm} -DRIX_LIB=$<TARGET_FILE:rix_autosync_orch>
            -DRIX_LIST=${PROJECT_SOURCE_DIR}/cmake/exported-symbols.txt -P ${CMAKE_CURRENT_LIST_FILE})
  set_tests_properties(exports_test PROPERTIES LABELS "exports")
  unset(_rix_nm)
  return()
endif()

cmake_minimum_required(VERSION 3.25)
foreach(v RIX_NM RIX_LIB RIX_LIST)
  if(NOT DEFINED ${v})
    message(FATAL_ERROR "exports_test: ${v} not given")
  endif()
endforeach()

# Names that may be present or absent.
set(optional g_ASOrchBaseStep g_ASOrchThreadTemplate)
# Symbols the linker defines in every shared object.
set(linker_defined _init _fini _edata _end __bss_start __bss_start__ __bss_end__ _bss_end__
    __end__ __exidx_start __exidx_end _DYNAMIC _GLOBAL_OFFSET_TABLE_ _ITM_registerTMCloneTable
    _ITM_deregisterTMCloneTable __gmon_start__ __cxa_finalize)

file(STRINGS ${RIX_LIST} expected REGEX "^[A-Za-z_]")
list(TRANSFORM expected STRIP)

execute_process(COMMAND ${RIX_NM} -D --defined-only ${RIX_LIB}
  OUTPUT_VARIABLE nm_out ERROR_VARIABLE nm_err RESULT_VARIABLE nm_rc)
if(NOT nm_rc EQUAL 0)
  message(FATAL_ERROR "exports_test: ${RIX_NM} -D --defined-only ${RIX_LIB} failed (${nm_rc}): ${nm_err}")
endif()

string(REPLACE "\n" ";" nm_lines "${nm_out}")
set(actual "")
set(mangled "")
foreach(line IN LISTS nm_lines)
  # "<address> <type> <name>[@version]"
  if(line MATCHES "^[0-9a-fA-F]* +[A-Za-z] +([^ @]+)")
    set(sym ${CMAKE_MATCH_1})
    if(sym MATCHES "^_Z")
      list(APPEND mangled ${sym})
    elseif(NOT sym IN_LIST linker_defined)
      list(APPEND actual ${sym})
    endif()
  endif()
endforeach()

set(missing "")
foreach(sym IN LISTS expected)
  if(NOT sym IN_LIST actual)
    list(APPEND missing ${sym})
  endif()
endforeach()
set(extra "")
foreach(sym IN LISTS actual)
  if(NOT sym IN_LIST expected AND NOT sym IN_LIST optional)
    list(APPEND extra ${sym})
  endif()
endforeach()

list(LENGTH expected n_expected)
list(LENGTH actual n_actual)
message(STATUS "exports_test: ${n_actual} names exported, ${n_expected} listed")
set(failed FALSE)
foreach(kind missing extra mangled)
  if(${kind})
    list(LENGTH ${kind} n)
    list(JOIN ${kind} "\n    " text)
    message(STATUS "exports_test: ${n} ${kind}:\n    ${text}")
    set(failed TRUE)
  endif()
endforeach()
if(failed)
  message(FATAL_ERROR "exports_test: the exported names of ${RIX_LIB} differ from ${RIX_LIST}")
endif()
