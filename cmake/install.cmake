# What a client gets: the library, the four umbrella headers with the class headers behind them, a
# CMake package and a pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS tarno EXPORT tarno-targets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
  RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}"
  ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}")

set(TARNO_INCLUDE_DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/tarno")
install(DIRECTORY include/tarno/ DESTINATION "${TARNO_INCLUDE_DESTINATION}" FILES_MATCHING PATTERN "*.h")
install(FILES platform/export.h platform/tn_core.h DESTINATION "${TARNO_INCLUDE_DESTINATION}/platform")
file(GLOB TARNO_CPU_HEADERS CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/cpu/*.h" "${PROJECT_SOURCE_DIR}/cpu/*.def")
list(FILTER TARNO_CPU_HEADERS EXCLUDE REGEX "/mat_storage\\.h$")  # internal
install(FILES ${TARNO_CPU_HEADERS} DESTINATION "${TARNO_INCLUDE_DESTINATION}/cpu")
install(FILES
    crossplatform/src/common/src/crossplatform_zqnetloader.h
    crossplatform/src/common/src/half_float.h
    crossplatform/src/common/src/zqlayerinfo.h
  DESTINATION "${TARNO_INCLUDE_DESTINATION}/crossplatform/src/common/src")
install(FILES crossplatform/src/version/version.h
  DESTINATION "${TARNO_INCLUDE_DESTINATION}/crossplatform/src/version")

set(TESK_SOURCE gpu/opengl/glcnn/src/tesk)
file(GLOB TARNO_GPU_HEADERS CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/${TESK_SOURCE}/*.h")
list(FILTER TARNO_GPU_HEADERS EXCLUDE
     REGEX "/(operator|operator_rows|picture_pass|program_sources)\\.h$")  # internal
install(FILES ${TARNO_GPU_HEADERS} DESTINATION "${TARNO_INCLUDE_DESTINATION}/${TESK_SOURCE}")
file(GLOB TARNO_GPU_HEADERS CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/${TESK_SOURCE}/glutil/*.h")
list(FILTER TARNO_GPU_HEADERS EXCLUDE REGEX "/(gl|half_stores)\\.h$")  # internal
install(FILES ${TARNO_GPU_HEADERS} DESTINATION "${TARNO_INCLUDE_DESTINATION}/${TESK_SOURCE}/glutil")

set(TARNO_CMAKE_DESTINATION "${CMAKE_INSTALL_LIBDIR}/cmake/tarno")
install(EXPORT tarno-targets NAMESPACE tarno:: DESTINATION "${TARNO_CMAKE_DESTINATION}")
file(WRITE "${PROJECT_BINARY_DIR}/tarno-config.cmake"
  "include(\"\${CMAKE_CURRENT_LIST_DIR}/tarno-targets.cmake\")\n")
write_basic_package_version_file("${PROJECT_BINARY_DIR}/tarno-config-version.cmake"
  COMPATIBILITY SameMajorVersion)
install(FILES "${PROJECT_BINARY_DIR}/tarno-config.cmake"
              "${PROJECT_BINARY_DIR}/tarno-config-version.cmake"
  DESTINATION "${TARNO_CMAKE_DESTINATION}")

# The way from the .pc file up to the prefix, so that an installed tree can be moved.
file(RELATIVE_PATH TARNO_PC_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
configure_file("${PROJECT_SOURCE_DIR}/cmake/tarno.pc.in" "${PROJECT_BINARY_DIR}/tarno.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/tarno.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
