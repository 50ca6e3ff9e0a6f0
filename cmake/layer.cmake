# kddc_layer(SOURCES a.cpp ... PUBLIC_HEADERS a.h ...)
# Adds a layer's sources to the library and its documented headers to what is installed.
function(kddc_layer)
  cmake_parse_arguments(LAYER "" "" "SOURCES;PUBLIC_HEADERS" ${ARGN})
  target_sources(kddc_objects PRIVATE ${LAYER_SOURCES})
  cmake_path(GET CMAKE_CURRENT_SOURCE_DIR FILENAME folder)
  list(TRANSFORM LAYER_PUBLIC_HEADERS PREPEND ${folder}/)
  set_property(GLOBAL APPEND PROPERTY KDDC_PUBLIC_HEADERS ${LAYER_PUBLIC_HEADERS})
endfunction()
