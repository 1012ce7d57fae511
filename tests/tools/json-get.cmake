# cmake -DFILE=f.json -DQUERY="0;path" -P json-get.cmake
# Prints the member at QUERY (keys and array indices) of the JSON in FILE;
# fails when FILE is not valid JSON or the member does not exist. An empty
# QUERY prints the LENGTH of the top-level array or object.
file(READ "${FILE}" text)
if(QUERY STREQUAL "")
  string(JSON value ERROR_VARIABLE err LENGTH "${text}")
elseif(QUERY MATCHES "#$")
  string(REGEX REPLACE ";?#$" "" path "${QUERY}")
  string(JSON value ERROR_VARIABLE err LENGTH "${text}" ${path})
else()
  string(JSON value ERROR_VARIABLE err GET "${text}" ${QUERY})
endif()
if(err)
  message(FATAL_ERROR "${err}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -E echo "${value}")
