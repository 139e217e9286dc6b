# cmake -DNM=nm -DLIBRARY=lib.so -P CheckExports.cmake
execute_process(COMMAND ${NM} -D --defined-only ${LIBRARY}
    OUTPUT_VARIABLE listing RESULT_VARIABLE result)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "${NM} failed on ${LIBRARY}")
endif()
string(REGEX MATCHALL "[^\n]+" lines "${listing}")
set(names)
foreach(line ${lines})
    string(REGEX REPLACE "^.* " "" name "${line}")
    list(APPEND names ${name})
endforeach()
list(SORT names)
set(expected AvQvl_Complete AvQvl_GetLastError AvQvl_Init AvQvl_Receive AvQvl_Send
    AvQvl_SendEOF AvQvl_SendNoAck AvQvl_Term)
if(NOT names STREQUAL expected)
    message(FATAL_ERROR "Exported: ${names}\nExpected: ${expected}")
endif()
message(STATUS "Exactly the eight AvQvl_ functions are exported.")
