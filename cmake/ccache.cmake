# Compiles through ccache where it is installed.
find_program(KDDC_CCACHE ccache)
if(KDDC_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${KDDC_CCACHE})
endif()
