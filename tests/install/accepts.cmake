# Which versions and widths the installed package is for, asked as find_package asks.
#
#   cmake -DPACKAGE=DIRECTORY -P accepts.cmake
function(accepts answer width version)
  set(CMAKE_SIZEOF_VOID_P ${width})
  set(PACKAGE_FIND_VERSION ${version})
  string(REGEX MATCH "^[0-9]+" PACKAGE_FIND_VERSION_MAJOR "0${version}")
  math(EXPR PACKAGE_FIND_VERSION_MAJOR "${PACKAGE_FIND_VERSION_MAJOR}") # 0 where none is wanted
  include(${PACKAGE}/qvopl-config-version.cmake)
  set(is NO)
  if(PACKAGE_VERSION_COMPATIBLE AND NOT PACKAGE_VERSION_UNSUITABLE)
    set(is YES)
  endif()
  if(NOT is STREQUAL answer)
    message(FATAL_ERROR "version '${version}' with pointers of '${width}' bytes: ${is}, ${PACKAGE_VERSION}")
  endif()
endfunction()

foreach(width 4 8)
  foreach(version "" 6 6.20 6.21)
    accepts(YES ${width} "${version}")
  endforeach()
  foreach(version 5 6.22 7)
    accepts(NO ${width} "${version}")
  endforeach()
endforeach()
accepts(NO "" 6.21)
accepts(NO 16 6.21)
