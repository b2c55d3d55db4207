# Precompiled headers: the heavy third-party headers that every file of a target includes (Qt's
# widgets) are parsed once per target instead of once per file. Only headers from outside the
# project go in, so that the layering check still sees every include of src/. (For the command line's
# CLI11 and JSON and the helper's Asio, building the header costs what it saves.)
#
# vantorix_precompile(<target> <header>...)
option(VANTORIX_PRECOMPILE_HEADERS "Precompile the heavy third-party headers of the larger targets" ON)

function(vantorix_precompile target)
  if(VANTORIX_PRECOMPILE_HEADERS)
    target_precompile_headers(${target} PRIVATE ${ARGN})
  endif()
endfunction()

# ccache caches files compiled with a precompiled header only when told to overlook the header's
# defines and time macros.
if(VANTORIX_PRECOMPILE_HEADERS AND CMAKE_CXX_COMPILER_LAUNCHER MATCHES "ccache")
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env
      CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime ${CMAKE_CXX_COMPILER_LAUNCHER})
endif()
