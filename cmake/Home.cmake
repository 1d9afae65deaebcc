# The build stages a complete host home, and `cmake --install` makes the same tree anywhere: programs find everything
# relative to it, so libraries and programs carry relative run paths from the start.
set(VEXADX_HOME "${PROJECT_BINARY_DIR}/home")
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${VEXADX_HOME}/bin")
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${VEXADX_HOME}/lib")
set(CMAKE_INSTALL_BINDIR bin)
set(CMAKE_INSTALL_LIBDIR lib)
set(CMAKE_INSTALL_INCLUDEDIR include/vexadx)
set(CMAKE_BUILD_WITH_INSTALL_RPATH ON)
if(APPLE)
  set(vexadx_origin "@loader_path")
else()
  set(vexadx_origin "$ORIGIN")
endif()
set(CMAKE_INSTALL_RPATH "${vexadx_origin};${vexadx_origin}/../lib")

# Puts files of the source tree into a directory of the home, now and at installation.
function(vexadx_home_files directory)
  foreach(file IN LISTS ARGN)
    get_filename_component(name "${file}" NAME)
    configure_file("${file}" "${VEXADX_HOME}/${directory}/${name}" COPYONLY)
  endforeach()
  install(FILES ${ARGN} DESTINATION "${directory}")
endfunction()

# An X's plug-in library: the suffix is .dylib on every platform, because that is the name the library forms.
function(vexadx_add_plugin target)
  add_library(${target} MODULE ${ARGN})
  set_target_properties(${target} PROPERTIES PREFIX lib SUFFIX .dylib)
  target_include_directories(${target} PRIVATE "${PROJECT_SOURCE_DIR}/backend/drivex/common/include")
  install(TARGETS ${target} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
endfunction()
