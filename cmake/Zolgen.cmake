# Generates C++ from the schema files: for each family F, ZolGen/F.h, ZolGen/FJson.h, F.cpp and a
# conformance test F_conformance.cpp, all in the build tree. The generator rewrites a file only
# when its content changes, so unchanged families do not rebuild.
#   zolgen_generate(<schemas> [TARGET <name>] [OUT <dir>])
# TARGET names the target that generates them (default zolgen) and OUT the tree they go to
# (default ZOLGEN_OUT), for schemas of another layer: a layer whose generated headers are in a
# tree of their own cannot include another layer's by mistake.
set(ZOLGEN ${PROJECT_SOURCE_DIR}/tools/zolgen/zolgen.py)
set(ZOLGEN_OUT ${PROJECT_BINARY_DIR}/gen)

function(zolgen_generate schemas)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "TARGET;OUT" "")
  set(target zolgen)
  if(ARG_TARGET)
    set(target ${ARG_TARGET})
  endif()
  set(out ${ZOLGEN_OUT})
  if(ARG_OUT)
    set(out ${ARG_OUT})
  endif()
  set(outputs)
  set(sources)
  set(tests)
  foreach(schema ${schemas})
    get_filename_component(family ${schema} NAME_WE)
    list(APPEND outputs
      ${out}/include/ZolGen/${family}.h
      ${out}/include/ZolGen/${family}Json.h
      ${out}/src/${family}.cpp
      ${out}/tests/${family}_conformance.cpp)
    list(APPEND sources ${out}/src/${family}.cpp)
    list(APPEND tests ${out}/tests/${family}_conformance.cpp)
  endforeach()
  file(GLOB gen_py ${PROJECT_SOURCE_DIR}/tools/zolgen/*.py)
  add_custom_command(
    OUTPUT ${outputs}
    COMMAND ${Python3_EXECUTABLE} ${ZOLGEN} --out ${out} ${schemas}
    DEPENDS ${schemas} ${gen_py}
    COMMENT "Generating entity and value classes from the schema"
    VERBATIM)
  add_custom_target(${target} DEPENDS ${outputs})
  set(ZOLGEN_SOURCES ${sources} PARENT_SCOPE)
  set(ZOLGEN_TESTS ${tests} PARENT_SCOPE)
endfunction()
