# Builds everything under the sanitizers of KDDC_SANITIZERS; the first finding ends the program.
if(KDDC_SANITIZERS)
  add_compile_options(-fsanitize=${KDDC_SANITIZERS} -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${KDDC_SANITIZERS})
  # Instrumented code hides from GCC that the standard library's variables are set.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-Wno-maybe-uninitialized)
  endif()
endif()
