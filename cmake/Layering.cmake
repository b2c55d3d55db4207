# The layering of src/: one library per folder, each seeing only its own headers and those of the
# libraries it links.
#
# vantorix_module(<target> <folder> [DEPENDS <folder>...] [LIBRARIES <target>...])
#   makes a static library of the folder's .cpp files (an interface library when there are none).
#   DEPENDS names the folders whose headers it includes; their libraries are linked. LIBRARIES are
#   other targets (system libraries, Qt). The library's include directory holds links to its own
#   folder's headers and nothing else, so an include of a folder that is not linked does not compile.
#
# vantorix_front_end(<target> <folder> [DEPENDS ...] [LIBRARIES ...])
#   records the dependencies of a folder that is built into an executable elsewhere (cli, app),
#   so that the check below covers it too.
#
# vantorix_check_layering() fails the configuration when a file of a folder includes a folder that
# is not among its DEPENDS (linked only through another library does not count), or when the
# dependencies form a cycle.

set(VANTORIX_SOURCE_ROOT ${CMAKE_CURRENT_SOURCE_DIR}/src)
set(VANTORIX_HEADER_ROOT ${CMAKE_CURRENT_BINARY_DIR}/include)

function(_vantorix_target_of_folder folder out)
  string(REPLACE "/" "_" name "${folder}")
  set(${out} vantorix_${name} PARENT_SCOPE)
endfunction()

# Links to the folder's headers (not to its subfolders) under <build>/include/<target>/<folder>/.
function(_vantorix_expose_headers target folder)
  set(root ${VANTORIX_HEADER_ROOT}/${target})
  file(GLOB headers CONFIGURE_DEPENDS ${VANTORIX_SOURCE_ROOT}/${folder}/*.h)
  file(REMOVE_RECURSE ${root})
  file(MAKE_DIRECTORY ${root}/${folder})
  foreach(header IN LISTS headers)
    get_filename_component(name ${header} NAME)
    file(CREATE_LINK ${header} ${root}/${folder}/${name} SYMBOLIC)
  endforeach()
  set(${target}_HEADER_ROOT ${root} PARENT_SCOPE)
endfunction()

function(_vantorix_record folder depends)
  set_property(GLOBAL APPEND PROPERTY VANTORIX_FOLDERS ${folder})
  set_property(GLOBAL PROPERTY VANTORIX_DEPENDS_${folder} "${depends}")
endfunction()

function(vantorix_module target folder)
  cmake_parse_arguments(PARSE_ARGV 2 arg "" "" "DEPENDS;LIBRARIES")
  _vantorix_record(${folder} "${arg_DEPENDS}")
  _vantorix_expose_headers(${target} ${folder})
  set(linked ${arg_LIBRARIES})
  foreach(dependency IN LISTS arg_DEPENDS)
    _vantorix_target_of_folder(${dependency} dependencyTarget)
    list(APPEND linked ${dependencyTarget})
  endforeach()
  file(GLOB sources CONFIGURE_DEPENDS ${VANTORIX_SOURCE_ROOT}/${folder}/*.cpp)
  list(FILTER sources EXCLUDE REGEX "/main\\.cpp$")
  if(sources)
    add_library(${target} STATIC ${sources})
    target_include_directories(${target} PUBLIC ${${target}_HEADER_ROOT})
    target_link_libraries(${target} PUBLIC ${linked})
  else()
    add_library(${target} INTERFACE)
    target_include_directories(${target} INTERFACE ${${target}_HEADER_ROOT})
    target_link_libraries(${target} INTERFACE ${linked})
  endif()
endfunction()

function(vantorix_front_end folder)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "DEPENDS")
  _vantorix_record(${folder} "${arg_DEPENDS}")
endfunction()

function(_vantorix_visit folder path)
  get_property(state GLOBAL PROPERTY VANTORIX_VISIT_${folder})
  if(state STREQUAL "done")
    return()
  endif()
  if(state STREQUAL "active")
    string(REPLACE ";" " -> " cycle "${path};${folder}")
    message(FATAL_ERROR "Layering: the libraries depend on each other in a cycle: ${cycle}")
  endif()
  set_property(GLOBAL PROPERTY VANTORIX_VISIT_${folder} active)
  get_property(depends GLOBAL PROPERTY VANTORIX_DEPENDS_${folder})
  foreach(dependency IN LISTS depends)
    _vantorix_visit(${dependency} "${path};${folder}")
  endforeach()
  set_property(GLOBAL PROPERTY VANTORIX_VISIT_${folder} done)
endfunction()

function(vantorix_check_layering)
  get_property(folders GLOBAL PROPERTY VANTORIX_FOLDERS)
  set(problems "")
  foreach(folder IN LISTS folders)
    get_property(depends GLOBAL PROPERTY VANTORIX_DEPENDS_${folder})
    foreach(dependency IN LISTS depends)
      if(NOT dependency IN_LIST folders)
        list(APPEND problems "src/${folder} depends on ${dependency}, which is no library")
      endif()
    endforeach()
    file(GLOB files ${VANTORIX_SOURCE_ROOT}/${folder}/*.h ${VANTORIX_SOURCE_ROOT}/${folder}/*.cpp)
    foreach(file IN LISTS files)
      file(STRINGS ${file} includes REGEX "^#include \"[a-z_]+/")
      foreach(line IN LISTS includes)
        string(REGEX MATCH "^#include \"([a-z_]+(/linux)?)/" ignored "${line}")
        set(included ${CMAKE_MATCH_1})
        if(included STREQUAL folder OR NOT included IN_LIST folders OR included IN_LIST depends)
          continue()
        endif()
        file(RELATIVE_PATH shown ${CMAKE_CURRENT_SOURCE_DIR} ${file})
        list(APPEND problems "${shown} includes ${included}/, which src/${folder} does not link")
      endforeach()
    endforeach()
  endforeach()
  if(problems)
    list(JOIN problems "\n  " text)
    message(FATAL_ERROR "Layering:\n  ${text}")
  endif()
  foreach(folder IN LISTS folders)
    _vantorix_visit(${folder} "")
  endforeach()
endfunction()
