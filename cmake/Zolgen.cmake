# Generates C++ from the schema files: for each family F, ZolGen/F.h, ZolGen/FJson.h, F.cpp and a
# conformance test F_conformance.cpp, all in the build tree. The generator rewrites a file only
# when its content changes, so unchanged families do not rebuild. A second argument names the
# target that generates them (default zolgen), for schemas of another layer.
set(ZOLGEN ${PROJECT_SOURCE_DIR}/tools/zolgen/zolgen.py)
set(ZOLGEN_OUT ${PROJECT_BINARY_DIR}/gen)

function(zolgen_generate schemas)
  set(outputs)
  set(sources)
  set(tests)
  foreach(schema ${schemas})
    get_filename_component(family ${schema} NAME_WE)
    list(APPEND outputs
      ${ZOLGEN_OUT}/include/ZolGen/${family}.h
      ${ZOLGEN_OUT}/include/ZolGen/${family}Json.h
      ${ZOLGEN_OUT}/src/${family}.cpp
      ${ZOLGEN_OUT}/tests/${family}_conformance.cpp)
    list(APPEND sources ${ZOLGEN_OUT}/src/${family}.cpp)
    list(APPEND tests ${ZOLGEN_OUT}/tests/${family}_conformance.cpp)
  endforeach()
  file(GLOB gen_py ${PROJECT_SOURCE_DIR}/tools/zolgen/*.py)
  add_custom_command(
    OUTPUT ${outputs}
    COMMAND ${Python3_EXECUTABLE} ${ZOLGEN} --out ${ZOLGEN_OUT} ${schemas}
    DEPENDS ${schemas} ${gen_py}
    COMMENT "Generating entity and value classes from the schema"
    VERBATIM)
  set(target zolgen)
  if(ARGC GREATER 1)
    set(target ${ARGV1})
  endif()
  add_custom_target(${target} DEPENDS ${outputs})
  set(ZOLGEN_SOURCES ${sources} PARENT_SCOPE)
  set(ZOLGEN_TESTS ${tests} PARENT_SCOPE)
endfunction()
