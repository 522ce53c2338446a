# A CBLAS that runs on the caller's thread: OpenBLAS's serial build where there is one.
#
#   SequentialBLAS::SequentialBLAS   the imported target
#   SequentialBLAS_LIBRARY_DIR       its folder, for the run path: the plain library name may lead
#                                    to a build of OpenBLAS that starts threads
find_path(SequentialBLAS_INCLUDE_DIR cblas.h PATH_SUFFIXES openblas-serial openblas
  HINTS /usr/include/${CMAKE_LIBRARY_ARCHITECTURE})
find_library(SequentialBLAS_LIBRARY NAMES openblas
  HINTS /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE} PATH_SUFFIXES openblas-serial)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(SequentialBLAS
  REQUIRED_VARS SequentialBLAS_LIBRARY SequentialBLAS_INCLUDE_DIR)
mark_as_advanced(SequentialBLAS_INCLUDE_DIR SequentialBLAS_LIBRARY)
if(SequentialBLAS_FOUND AND NOT TARGET SequentialBLAS::SequentialBLAS)
  get_filename_component(SequentialBLAS_LIBRARY_DIR "${SequentialBLAS_LIBRARY}" DIRECTORY)
  add_library(SequentialBLAS::SequentialBLAS UNKNOWN IMPORTED)
  set_target_properties(SequentialBLAS::SequentialBLAS PROPERTIES
    IMPORTED_LOCATION "${SequentialBLAS_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${SequentialBLAS_INCLUDE_DIR}")
endif()
