# Runs one command and checks it: it must exit with 0, and its standard
# output and error together must match EXPECT (if given). CTest's own
# PASS_REGULAR_EXPRESSION would ignore the exit status, and with it a crash
# or a leak report after the expected lines.
#
#   cmake [-DEXPECT=REGEX] -P run_example.cmake -- COMMAND [ARG...]
cmake_minimum_required(VERSION 3.20)
set(command "")
set(after_separator FALSE)
foreach(i RANGE 1 ${CMAKE_ARGC})
  if(i EQUAL CMAKE_ARGC)
    break()
  endif()
  if(after_separator)
    list(APPEND command "${CMAKE_ARGV${i}}")
  elseif(CMAKE_ARGV${i} STREQUAL "--")
    set(after_separator TRUE)
  endif()
endforeach()
if(NOT command)
  message(FATAL_ERROR "usage: cmake [-DEXPECT=REGEX] -P run_example.cmake -- COMMAND [ARG...]")
endif()

# A memory checker run (scripts/valgrind.sh) puts its command in front of
# the examples' own programs, not in front of other tools such as ffprobe.
list(GET command 0 program)
get_filename_component(program_dir "${program}" DIRECTORY)
get_filename_component(working_dir "." ABSOLUTE)
if(DEFINED ENV{MP4CORE_EXAMPLE_WRAPPER} AND program_dir STREQUAL working_dir)
  separate_arguments(wrapper UNIX_COMMAND "$ENV{MP4CORE_EXAMPLE_WRAPPER}")
  list(PREPEND command ${wrapper})
endif()

execute_process(COMMAND ${command} RESULT_VARIABLE status
                OUTPUT_VARIABLE output ERROR_VARIABLE output)
message("${output}")
if(NOT status STREQUAL "0")
  message(FATAL_ERROR "exit status ${status}: ${command}")
endif()
if(DEFINED EXPECT AND NOT output MATCHES "${EXPECT}")
  message(FATAL_ERROR "the output does not match: ${EXPECT}")
endif()
