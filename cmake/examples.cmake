# Builds the examples against an installed library:
#
#   cmake -S . -B /tmp/examples && cmake --build /tmp/examples
#
# Each directory is one program, except for wordmill's.
cmake_minimum_required(VERSION 3.18)
project(qvopl-examples LANGUAGES C CXX)
find_package(qvopl 6.21 REQUIRED)

set(CMAKE_C_STANDARD 99)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_EXTENSIONS OFF)

file(GLOB sources */*.c */*.cpp)
list(FILTER sources EXCLUDE REGEX /wordmill/)
foreach(source IN LISTS sources)
  get_filename_component(name ${source} DIRECTORY)
  get_filename_component(name ${name} NAME)
  if(TARGET ${name})
    target_sources(${name} PRIVATE ${source})
  else()
    add_executable(${name} ${source})
    target_link_libraries(${name} PRIVATE qvopl::qvopl)
  endif()
  # A program that names its instance.
  file(STRINGS ${source} instance REGEX OPL_InitInstanceStringSetCallback)
  if(instance)
    qvopl_export_instance(${name})
  endif()
endforeach()

add_library(wordmill-common STATIC
  wordmill/common.c wordmill/counts.c wordmill/queue.c wordmill/words.c wordmill/worker.c)
target_compile_definitions(wordmill-common PUBLIC _XOPEN_SOURCE=700 _FILE_OFFSET_BITS=64)
target_link_libraries(wordmill-common PUBLIC qvopl::qvopl)
add_executable(wordmill wordmill/wordmill.c wordmill/talk.c)
add_executable(wordmilld wordmill/wordmilld.c wordmill/answers.c wordmill/clients.c wordmill/tree.c)
add_executable(wordmill-worker wordmill/wordmill-worker.c)
foreach(program wordmill wordmilld wordmill-worker)
  target_link_libraries(${program} PRIVATE wordmill-common)
  qvopl_export_instance(${program})
endforeach()
add_dependencies(wordmill wordmilld wordmill-worker)
# wordmill looks for the scripts beside itself.
foreach(script OPL_ServerPS OPL_ServerInitPidGet)
  configure_file(${qvopl_SCRIPT_DIR}/${script} ${script} COPYONLY)
endforeach()
