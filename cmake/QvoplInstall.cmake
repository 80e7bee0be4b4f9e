# What `cmake --install` puts where, in four components: runtime (the library and the scripts of a server), development,
# tools and documentation. Both widths go into one prefix: what differs has the width in its path, and the rest
# is the same file.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

math(EXPR QVOPL_WIDTH "8 * ${CMAKE_SIZEOF_VOID_P}")
# The name of the directory has the version of the library's interface: programs that were built for another one
# keep the scripts that they know.
set(QVOPL_INSTALL_SCRIPTDIR ${CMAKE_INSTALL_LIBEXECDIR}/qvopl-${PROJECT_VERSION_MAJOR})
# One directory for both widths: CMake looks into the one of the architecture only where the compiler has such
# a one by itself, which a compiler for 64 bits with -m32 has not.
set(QVOPL_INSTALL_CMAKEDIR lib/cmake/qvopl)

install(TARGETS qvopl EXPORT qvopl
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(PROGRAMS opl_server/scripts/OPL_ServerPS opl_server/scripts/OPL_ServerInitPidGet
  DESTINATION ${QVOPL_INSTALL_SCRIPTDIR} COMPONENT runtime)

install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development
  FILES_MATCHING PATTERN *.h PATTERN *.hpp)
install(EXPORT qvopl NAMESPACE qvopl:: FILE qvopl-targets-${QVOPL_WIDTH}.cmake
  DESTINATION ${QVOPL_INSTALL_CMAKEDIR} COMPONENT development)
configure_package_config_file(cmake/qvopl-config.cmake.in qvopl-config.cmake
  INSTALL_DESTINATION ${QVOPL_INSTALL_CMAKEDIR}
  PATH_VARS QVOPL_INSTALL_SCRIPTDIR
  NO_CHECK_REQUIRED_COMPONENTS_MACRO)
configure_file(cmake/qvopl-config-version.cmake.in qvopl-config-version.cmake @ONLY)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/qvopl-config.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/qvopl-config-version.cmake
  cmake/QvoplExportInstance.cmake
  DESTINATION ${QVOPL_INSTALL_CMAKEDIR} COMPONENT development)
# A prefix may be moved: the file says where it is from its own place. The system's prefixes stay where they are,
# and are known by their names to pkg-config, which leaves out what the compiler searches by itself.
file(RELATIVE_PATH to_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig/qvopl.pc /)
string(REGEX REPLACE "/[.][.]/?$" "" to_prefix ${to_prefix})
install(CODE "
  set(version ${PROJECT_VERSION})
  set(includedir ${CMAKE_INSTALL_INCLUDEDIR})
  set(libdir ${CMAKE_INSTALL_LIBDIR})
  set(scriptdir ${QVOPL_INSTALL_SCRIPTDIR})
  get_filename_component(CMAKE_INSTALL_PREFIX \"\${CMAKE_INSTALL_PREFIX}\" ABSOLUTE)
  set(prefix \"\\\${pcfiledir}/${to_prefix}\")
  if(CMAKE_INSTALL_PREFIX MATCHES \"^/usr(/local)?\$\")
    set(prefix \"\${CMAKE_INSTALL_PREFIX}\")
  endif()
  set(file \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig/qvopl.pc\")
  message(STATUS \"Installing: \$ENV{DESTDIR}\${file}\")
  configure_file(\"${CMAKE_CURRENT_SOURCE_DIR}/cmake/qvopl.pc.in\" \"\$ENV{DESTDIR}\${file}\" @ONLY)
  list(APPEND CMAKE_INSTALL_MANIFEST_FILES \"\${file}\")" COMPONENT development)

# There is one tool of a name in a prefix. Where both widths can be installed, it is the wider one; the other
# is installed by --component tools.
set(only_on_request)
if(CMAKE_SIZEOF_VOID_P EQUAL 4 AND CMAKE_HOST_SYSTEM_PROCESSOR STREQUAL "x86_64")
  set(only_on_request EXCLUDE_FROM_ALL)
endif()
# A tool finds the library of its prefix. Below /usr the loader does so by itself, and packages may not.
file(RELATIVE_PATH libraries /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
get_directory_property(directories SUBDIRECTORIES)
if(${CMAKE_CURRENT_SOURCE_DIR}/tools IN_LIST directories)
  get_directory_property(tools DIRECTORY tools BUILDSYSTEM_TARGETS)
  foreach(tool IN LISTS tools)
    get_target_property(type ${tool} TYPE)
    if(type STREQUAL "EXECUTABLE")
      set_target_properties(${tool} PROPERTIES INSTALL_RPATH $ORIGIN/${libraries})
      install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools ${only_on_request})
      install(CODE "
        if(CMAKE_INSTALL_PREFIX STREQUAL \"/usr\")
          file(RPATH_REMOVE FILE \"\$ENV{DESTDIR}/usr/${CMAKE_INSTALL_BINDIR}/$<TARGET_FILE_NAME:${tool}>\")
        endif()" COMPONENT tools ${only_on_request})
    endif()
  endforeach()
endif()
file(GLOB manuals CONFIGURE_DEPENDS tools/man/*.1)
install(FILES ${manuals} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
file(GLOB completions CONFIGURE_DEPENDS tools/completion/*)
foreach(completion IN LISTS completions)
  get_filename_component(name ${completion} NAME)
  if(name MATCHES "^_")
    install(FILES ${completion} DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions COMPONENT tools)
  elseif(name MATCHES "[.]fish$")
    install(FILES ${completion} DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT tools)
  else()
    install(FILES ${completion} DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
      RENAME qvopl COMPONENT tools)
  endif()
endforeach()

install(FILES README.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation)
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation)
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation
  PATTERN CMakeLists.txt EXCLUDE PATTERN check EXCLUDE PATTERN .clang-tidy EXCLUDE)
install(FILES cmake/examples.cmake DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples RENAME CMakeLists.txt
  COMPONENT documentation)
# Where the reference is made before, it comes along.
set(QVOPL_REFERENCE ${CMAKE_CURRENT_SOURCE_DIR}/build/reference CACHE PATH
  "Directory with the reference: html, and the manual pages in man/man3")
install(DIRECTORY ${QVOPL_REFERENCE}/html DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation OPTIONAL)
install(DIRECTORY ${QVOPL_REFERENCE}/man/man3 DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT documentation OPTIONAL)
