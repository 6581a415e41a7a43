# One static archive per subsystem, so a change in one folder rebuilds only its
# own archive and the tests that link it. kutils_core gathers them all: it is
# the internal library that tests and the plugin link.
#
#   kutils_subsystem(<target> [PLATFORM] DIRS <dir>... [EXCLUDE <file>...] [SOURCES <file>...] [LIBS <lib>...])
#
# PLATFORM archives see platform/ only: an include of src/ from there fails to
# compile, so the layers keep pointing one way.
function(kutils_subsystem target)
  cmake_parse_arguments(S "PLATFORM" "" "DIRS;EXCLUDE;SOURCES;LIBS" ${ARGN})
  set(_sources ${S_SOURCES})
  foreach(_dir IN LISTS S_DIRS)
    file(GLOB _found CONFIGURE_DEPENDS ${_dir}/*.cpp ${_dir}/*.h)
    list(APPEND _sources ${_found})
  endforeach()
  foreach(_ex IN LISTS S_EXCLUDE)
    list(REMOVE_ITEM _sources ${_ex})
  endforeach()
  set(_scope PUBLIC)
  if(TARGET ${target})
    target_sources(${target} PRIVATE ${_sources})
  elseif(_sources)
    add_library(${target} STATIC ${_sources})
  else()
    # A folder that holds no code yet still gives its name to the link lines.
    add_library(${target} INTERFACE)
    set(_scope INTERFACE)
  endif()
  if(S_PLATFORM)
    target_include_directories(${target} ${_scope} ${PROJECT_SOURCE_DIR}/platform)
  else()
    target_include_directories(${target} ${_scope}
      ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/platform ${PROJECT_BINARY_DIR}/generated)
  endif()
  target_link_libraries(${target} ${_scope} ${S_LIBS})
endfunction()

# Adds every direct subfolder of the current folder that has a CMakeLists.txt,
# so each subsystem's tests and benchmarks are listed in their own folder.
function(kutils_add_child_folders)
  file(GLOB _children LIST_DIRECTORIES true ${CMAKE_CURRENT_SOURCE_DIR}/*)
  foreach(_child IN LISTS _children)
    if(IS_DIRECTORY ${_child} AND EXISTS ${_child}/CMakeLists.txt)
      add_subdirectory(${_child})
    endif()
  endforeach()
endfunction()
