# Turns the published list of OPC UA status codes (data/opcua-status-codes.csv: name,
# hex code, "description") into a C++ table sorted by code, for the quality texts.
# Run with -DINPUT=<csv> -DOUTPUT=<cpp>. Fails on a line it cannot read or a code
# listed twice, so a damaged list never builds into a smaller table.
file(STRINGS "${INPUT}" lines ENCODING UTF-8)
set(pairs "")
set(count 0)
foreach(line IN LISTS lines)
  if(line STREQUAL "")
    continue()
  endif()
  if(NOT line MATCHES "^([A-Za-z][A-Za-z0-9_]*),0[xX]([0-9A-Fa-f]+),")
    message(FATAL_ERROR "status code list: cannot read line: ${line}")
  endif()
  set(name "${CMAKE_MATCH_1}")
  string(TOUPPER "${CMAKE_MATCH_2}" hex)
  string(LENGTH "${hex}" length)
  if(length GREATER 8)
    message(FATAL_ERROR "status code list: code wider than 32 bits: ${line}")
  endif()
  while(length LESS 8)
    string(PREPEND hex "0")
    math(EXPR length "${length} + 1")
  endwhile()
  # Fixed-width upper-case hex sorts as text in numeric order.
  list(APPEND pairs "${hex}=${name}")
  math(EXPR count "${count} + 1")
endforeach()
list(SORT pairs)
set(body "")
set(previous "")
foreach(pair IN LISTS pairs)
  string(REPLACE "=" ";" parts "${pair}")
  list(GET parts 0 hex)
  list(GET parts 1 name)
  if(hex STREQUAL previous)
    message(FATAL_ERROR "status code list: code 0x${hex} listed twice")
  endif()
  set(previous "${hex}")
  string(APPEND body "    {0x${hex}u, OLESTR(\"${name}\")},\n")
endforeach()
file(WRITE "${OUTPUT}.tmp" "// Generated from data/opcua-status-codes.csv by GenerateStatusCodeTable.cmake; do not edit.
#include \"SQLParser/QualityText.h\"

namespace corvane {

const StatusCodeEntry kStatusCodes[] = {
${body}};

const size_t kStatusCodeCount = ${count};

}  // namespace corvane
")
# Only a changed table recompiles.
file(COPY_FILE "${OUTPUT}.tmp" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.tmp")
