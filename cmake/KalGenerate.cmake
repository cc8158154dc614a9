# kal_generate(TARGET <target> [HEADER_PREFIX <dir/>] MODELS <model.kal>...)
#
# Runs tools/kalgen on each model description and adds the generated <Model>.gen.cpp to
# <target>. Headers land in ${CMAKE_BINARY_DIR}/gen/<HEADER_PREFIX>, so with HEADER_PREFIX
# "fwk/" the model fwk/FibHelper.kal is included as "fwk/FibHelper.h". Editing a model, or
# the generator, regenerates and rebuilds what depends on it.
find_package(Python3 REQUIRED COMPONENTS Interpreter)
set(KALGEN_SCRIPT ${CMAKE_CURRENT_LIST_DIR}/../tools/kalgen/kalgen.py CACHE INTERNAL "")

function(kal_generate)
  cmake_parse_arguments(G "" "TARGET;HEADER_PREFIX" "MODELS" ${ARGN})
  if(NOT G_TARGET OR NOT G_MODELS)
    message(FATAL_ERROR "kal_generate needs TARGET and MODELS")
  endif()
  set(out_dir ${CMAKE_BINARY_DIR}/gen/${G_HEADER_PREFIX})
  foreach(model ${G_MODELS})
    get_filename_component(abs ${model} ABSOLUTE)
    get_filename_component(name ${model} NAME_WE)
    set(h ${out_dir}${name}.h)
    set(cpp ${out_dir}${name}.gen.cpp)
    add_custom_command(
      OUTPUT ${h} ${cpp}
      COMMAND ${Python3_EXECUTABLE} ${KALGEN_SCRIPT} --out-dir ${out_dir}
              --header-prefix "${G_HEADER_PREFIX}" ${abs}
      DEPENDS ${abs} ${KALGEN_SCRIPT}
      COMMENT "kalgen ${name}"
      VERBATIM)
    target_sources(${G_TARGET} PRIVATE ${cpp} ${h})
  endforeach()
  target_include_directories(${G_TARGET} PUBLIC $<BUILD_INTERFACE:${CMAKE_BINARY_DIR}/gen>)
endfunction()
