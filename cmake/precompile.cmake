# kddc_precompile(NAME HEADERS...): the target NAME, which holds the compiler's own form of these
# headers for those that REUSE_FROM it. It is a target of its own because CMake counts the form among
# the objects of whoever makes it, and would link it. It fits only code that is compiled alike.
# The presets without it show that each source includes what it needs.
function(kddc_precompile name)
  file(CONFIGURE OUTPUT ${name}.cpp CONTENT "")
  add_library(${name} OBJECT ${CMAKE_CURRENT_BINARY_DIR}/${name}.cpp)
  target_precompile_headers(${name} PRIVATE ${ARGN})
endfunction()
