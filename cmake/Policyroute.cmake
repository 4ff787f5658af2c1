# Helpers of the build.

file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/empty.cpp CONTENT "")

# All sources of folders (not of their sub-folders), found again at every build.
function(pbr_sources OUT)
  set(found)
  foreach(folder ${ARGN})
    file(GLOB files CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${folder}/*.cpp)
    list(APPEND found ${files})
  endforeach()
  if(NOT found AND NOT ARGN MATCHES "^tests/(unit|scenario|system)")
    set(found ${CMAKE_BINARY_DIR}/empty.cpp)
  endif()
  set(${OUT} ${found} PARENT_SCOPE)
endfunction()

# For builds whose sources are seen alone elsewhere (POLICYROUTE_UNITY): the sources of each folder of a target in
# a few translation units, ten in each, which halves the compiler's work. Names that are local to a file must
# then be unique in its folder, but for the sources behind the target's name, which stay alone.
function(pbr_unity target)
  if(NOT POLICYROUTE_UNITY OR NOT TARGET ${target})
    return()
  endif()
  set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_MODE GROUP)
  if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
    target_compile_options(${target} PRIVATE -Wno-subobject-linkage) # sources are taken for headers
  endif()
  get_target_property(sources ${target} SOURCES)
  foreach(source ${sources})
    file(REAL_PATH ${source} path BASE_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR})
    file(RELATIVE_PATH relative ${CMAKE_SOURCE_DIR} ${path})
    if(relative IN_LIST ARGN)
      continue()
    endif()
    get_filename_component(folder ${relative} DIRECTORY)
    string(MAKE_C_IDENTIFIER ${folder} folder)
    math(EXPR number "${count_${folder}} + 0")
    math(EXPR group "${number} / 10")
    math(EXPR count_${folder} "${number} + 1")
    set_source_files_properties(${source} PROPERTIES UNITY_GROUP ${folder}_${group})
  endforeach()
endfunction()

# Header-only libraries for a cross compiler that does not look into /usr/include: a folder of links.
set(POLICYROUTE_HEADER_ONLY_DIR ${CMAKE_BINARY_DIR}/header-only)
file(MAKE_DIRECTORY ${POLICYROUTE_HEADER_ONLY_DIR})
foreach(lib boost nlohmann CLI)
  if(EXISTS /usr/include/${lib})
    file(CREATE_LINK /usr/include/${lib} ${POLICYROUTE_HEADER_ONLY_DIR}/${lib} SYMBOLIC)
  endif()
endforeach()

# The checks that every build makes: includes against docs/layers.txt, calls the daemon must not make,
# and every header of the daemon, the seam, the client and the shared libraries compiled alone.
function(pbr_house_checks)
  file(GLOB headers CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/platform/*.h ${CMAKE_SOURCE_DIR}/core/*.h
       ${CMAKE_SOURCE_DIR}/store/*.h ${CMAKE_SOURCE_DIR}/rtmsg/*.h ${CMAKE_SOURCE_DIR}/nexthop/*.h
       ${CMAKE_SOURCE_DIR}/hw/*.h ${CMAKE_SOURCE_DIR}/api/*.h ${CMAKE_SOURCE_DIR}/client/*.h
       ${CMAKE_SOURCE_DIR}/aclrule/*.h ${CMAKE_SOURCE_DIR}/schedule/*.h)
  file(GLOB daemonSources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/core/*.cpp ${CMAKE_SOURCE_DIR}/store/*.cpp
       ${CMAKE_SOURCE_DIR}/rtmsg/*.cpp ${CMAKE_SOURCE_DIR}/nexthop/*.cpp ${CMAKE_SOURCE_DIR}/hw/*.cpp
       ${CMAKE_SOURCE_DIR}/api/*.cpp)
  set(stamp ${CMAKE_BINARY_DIR}/house-checks.stamp)
  add_custom_command(
    OUTPUT ${stamp}
    COMMAND ${Python3_EXECUTABLE} ${CMAKE_SOURCE_DIR}/scripts/check-house.py ${CMAKE_SOURCE_DIR}
    COMMAND ${CMAKE_COMMAND} -E touch ${stamp}
    DEPENDS ${headers} ${daemonSources} ${CMAKE_SOURCE_DIR}/docs/layers.txt
            ${CMAKE_SOURCE_DIR}/scripts/check-house.py
    COMMENT "Checking layers and forbidden calls")
  add_custom_target(house_checks ALL DEPENDS ${stamp})

  set(units)
  foreach(header ${headers})
    file(RELATIVE_PATH relative ${CMAKE_SOURCE_DIR} ${header})
    string(REPLACE "/" "_" unit ${relative})
    set(source ${CMAKE_BINARY_DIR}/header-checks/${unit}.cpp)
    file(CONFIGURE OUTPUT ${source} CONTENT "#include \"${relative}\"\n#include \"${relative}\"\n")
    list(APPEND units ${source})
  endforeach()
  add_library(header_checks OBJECT ${units})
  target_compile_options(header_checks PRIVATE -O0 -Wno-unused-function)
  if(POLICYROUTE_THREADS_ONLY) # every other build makes them
    set_target_properties(header_checks PROPERTIES EXCLUDE_FROM_ALL ON)
  endif()
endfunction()
