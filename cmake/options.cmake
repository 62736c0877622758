# Options that every target of the project shares.

find_program(CCACHE ccache)
if(CCACHE)
  # The setting lets precompiled headers hit the cache.
  set(DS_LAUNCHER ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros ${CCACHE})
  set(CMAKE_C_COMPILER_LAUNCHER ${DS_LAUNCHER})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${DS_LAUNCHER})
endif()

add_library(ds_options INTERFACE)
target_compile_options(ds_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wvla -Wundef -Wformat=2 -Werror
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual>)
target_include_directories(ds_options INTERFACE ${PROJECT_SOURCE_DIR})

# Half of what the sanitizers cost a compiler is to optimise what they add. The daemon and most tests
# wait more than they compute and can do without; what links this is optimised in every build: the
# library, the platform, the engine, the simulator, and the command line, which prints a great deal.
add_library(ds_computing_options INTERFACE)
if(NOT DS_COVERAGE)
  target_compile_options(ds_computing_options INTERFACE $<$<CONFIG:Debug>:-O1>)
endif()

# The library and the platform code: plain records and free functions, no exceptions, no RTTI.
add_library(ds_core_options INTERFACE)
target_link_libraries(ds_core_options INTERFACE ds_options ds_computing_options)
target_compile_options(ds_core_options INTERFACE
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti>)

if(DS_SANITIZE)
  add_compile_options(-fsanitize=${DS_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${DS_SANITIZE})
endif()
if(DS_COVERAGE)
  add_compile_options(--coverage -O0)
  add_link_options(--coverage)
endif()
