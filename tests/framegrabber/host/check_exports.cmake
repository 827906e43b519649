# What a host sees of the plug-in's binary:
#   - exactly the four entry points in the dynamic symbol table;
#   - no dependency on the closed libraries, which are opened at run time;
#   - the version mark in its data.
# Sanitizer builds (SANITIZE not empty) link the runtime's hooks in and may
# export them as well: there the four must be present and anything else
# must be a sanitizer symbol.
# Usage: cmake -DPLUGIN=<library> -DNM=<nm> -DREADELF=<readelf> [-DSANITIZE=...] -P this file
cmake_minimum_required(VERSION 3.25)

foreach(variable PLUGIN NM READELF)
  if(NOT ${variable})
    message(FATAL_ERROR "${variable} is not set")
  endif()
endforeach()

set(expected DestroyFrameGrabber GetFrameGrabber _Z26ClientVersionDummyFunctionv m_pFrameGrabber)
set(failures "")

execute_process(COMMAND ${NM} -D --defined-only ${PLUGIN}
  OUTPUT_VARIABLE table RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "${NM} failed on ${PLUGIN}")
endif()
string(REGEX MATCHALL "[^\n]+" lines "${table}")
set(exported "")
foreach(line IN LISTS lines)
  string(REGEX REPLACE "^.*[ \t]" "" name "${line}")
  list(APPEND exported "${name}")
endforeach()
list(SORT exported)

foreach(name IN LISTS expected)
  if(NOT name IN_LIST exported)
    list(APPEND failures "entry point ${name} is not exported")
  endif()
endforeach()
foreach(name IN LISTS exported)
  if(name IN_LIST expected)
    continue()
  endif()
  if(SANITIZE AND name MATCHES "^_*(asan|ubsan|tsan|sanitizer|lsan|odr_asan)")
    continue()
  endif()
  list(APPEND failures "unexpected export ${name}")
endforeach()

execute_process(COMMAND ${READELF} -d ${PLUGIN} OUTPUT_VARIABLE dynamic RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "${READELF} failed on ${PLUGIN}")
endif()
foreach(closed libQV2ScanAPI.so libnorvakcalibratesdk.so libnorvaklf.so)
  string(FIND "${dynamic}" "[${closed}]" at)
  if(NOT at EQUAL -1)
    list(APPEND failures "linked against ${closed}")
  endif()
endforeach()

file(STRINGS ${PLUGIN} marks REGEX "Norvak_version libnorvakkr7fg 1\\.13\\.38\\.0")
if(NOT marks)
  list(APPEND failures "version mark \"Norvak_version libnorvakkr7fg 1.13.38.0\" not found")
endif()

if(failures)
  list(JOIN failures "\n  " text)
  message(FATAL_ERROR "${PLUGIN}:\n  ${text}\nexported: ${exported}")
endif()
message(STATUS "${PLUGIN}: ${exported}")
