# Every header that a client can reach compiles alone, twice in one unit, without a warning.
file(GLOB public_headers CONFIGURE_DEPENDS RELATIVE "${PROJECT_SOURCE_DIR}"
  "${PROJECT_SOURCE_DIR}/include/tarno/*.h" "${PROJECT_SOURCE_DIR}/cpu/*.h"
  "${PROJECT_SOURCE_DIR}/crossplatform/src/*/*.h" "${PROJECT_SOURCE_DIR}/crossplatform/src/*/src/*.h"
  "${PROJECT_SOURCE_DIR}/gpu/opengl/glcnn/src/tesk/*.h"
  "${PROJECT_SOURCE_DIR}/gpu/opengl/glcnn/src/tesk/glutil/*.h"
  "${PROJECT_SOURCE_DIR}/platform/tn_core.h" "${PROJECT_SOURCE_DIR}/platform/export.h")
list(FILTER public_headers EXCLUDE REGEX "/gl\\.h$")  # internal, needs the loader's headers
set(units "")
foreach(header IN LISTS public_headers)
  string(MAKE_C_IDENTIFIER "${header}" name)
  set(unit "${CMAKE_CURRENT_BINARY_DIR}/headers/${name}.cpp")
  file(CONFIGURE OUTPUT "${unit}" CONTENT "#include \"${header}\"\n#include \"${header}\"\n")
  list(APPEND units "${unit}")
endforeach()
add_library(test_headers OBJECT ${units})
target_link_libraries(test_headers PRIVATE tarno::tarno tarno_flags)
