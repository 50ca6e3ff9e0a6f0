# The warnings of both compilers, for all of our own code.
add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(KDDC_WARNINGS_AS_ERRORS)
  add_compile_options(-Werror)
endif()
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  add_compile_options(-Wthread-safety)
endif()
