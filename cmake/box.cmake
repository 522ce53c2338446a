# tarno_box(<name> SOURCES <file>... SEES <path>...)
#
# One part of the shared library, as the object library `tarno_<name>`. It compiles against a folder
# of links that holds only the paths under SEES (files or folders, relative to the source tree), so
# an include that points against the arrows between the boxes does not compile.
function(tarno_box name)
  cmake_parse_arguments(BOX "" "" "SOURCES;SEES" ${ARGN})
  set(view "${PROJECT_BINARY_DIR}/views/${name}")
  file(REMOVE_RECURSE "${view}")
  foreach(path IN LISTS BOX_SEES)
    get_filename_component(folder "${view}/${path}" DIRECTORY)
    file(MAKE_DIRECTORY "${folder}")
    file(CREATE_LINK "${PROJECT_SOURCE_DIR}/${path}" "${view}/${path}" SYMBOLIC COPY_ON_ERROR)
  endforeach()

  if(NOT BOX_SOURCES)
    add_library(tarno_${name} INTERFACE)
    return()
  endif()
  add_library(tarno_${name} OBJECT ${BOX_SOURCES})
  target_include_directories(tarno_${name} PRIVATE "${view}")
  target_compile_definitions(tarno_${name} PRIVATE TARNO_BUILDING_LIBRARY)
  target_link_libraries(tarno_${name} PRIVATE $<BUILD_INTERFACE:tarno_flags>)
  set_target_properties(tarno_${name} PROPERTIES
    CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
endfunction()
