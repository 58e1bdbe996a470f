# Headers, libraries and package files: find_package(Tavro) and pkg-config find what cmake --install leaves.
include(CMakePackageConfigHelpers)

set(targets tavro_platform tavro_infra)
if(TARGET tavro_simulated)
  list(APPEND targets tavro_simulated)
endif()
install(TARGETS ${targets} EXPORT TavroTargets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})

# Of an implementation of the platform, only what the public headers include; of the simulated one, exploring too.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/src/datapath DESTINATION ${TAVRO_INCLUDE_FOLDER} FILES_MATCHING PATTERN "*.h")
set(floors windows)
if(NOT WIN32)
  set(floors posix simulated)
endif()
list(JOIN floors "|" floors)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/src/platform DESTINATION ${TAVRO_INCLUDE_FOLDER} FILES_MATCHING
  REGEX "platform/[A-Za-z]+\\.h$" REGEX "platform/(${floors})/(Native[A-Za-z]+|SwitchPoint|Schedule)\\.h$")

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/Tavro)
install(EXPORT TavroTargets NAMESPACE Tavro:: DESTINATION ${package_folder})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/TavroConfig.cmake.in ${PROJECT_BINARY_DIR}/TavroConfig.cmake
  INSTALL_DESTINATION ${package_folder})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TavroConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/TavroConfig.cmake ${PROJECT_BINARY_DIR}/TavroConfigVersion.cmake
  DESTINATION ${package_folder})

# The pkg-config files find the folder by their own place, so that it can be moved.
file(RELATIVE_PATH TAVRO_UP /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" TAVRO_UP ${TAVRO_UP})
set(TAVRO_SYSTEM_LIBRARIES "-pthread")
set(TAVRO_FOLDERS "-I\${includedir}/platform/posix")
if(WIN32)
  set(TAVRO_SYSTEM_LIBRARIES "-lpsapi -lshlwapi -lshell32 -lole32 -luser32 -lssp")
  set(TAVRO_FOLDERS "-I\${includedir}/platform/windows")
endif()
function(install_pkg_config name description libraries)
  set(TAVRO_NAME ${name})
  set(TAVRO_DESCRIPTION ${description})
  set(TAVRO_LIBRARIES ${libraries})
  configure_file(${PROJECT_SOURCE_DIR}/cmake/tavro.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()
install_pkg_config(tavro-platform "what the operating system gives, one header for each concern" "-ltavro_platform")
install_pkg_config(tavro-infra "logs, configuration, guarded memory, threads, timers and monitors"
  "-ltavro_infra -ltavro_platform")
if(TARGET tavro_simulated)
  set(TAVRO_FOLDERS "-I\${includedir}/platform/simulated -I\${includedir}/platform/posix")
  install_pkg_config(tavro-simulated "tavro-infra with threads under a deterministic scheduler, in virtual time"
    "-ltavro_simulated")
endif()
