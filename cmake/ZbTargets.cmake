# Helpers that turn a source folder into a library target. Sources are globbed
# so adding a file needs no CMake edit.

set(ZB_WARNINGS -Wall -Wextra -Werror -Wno-missing-field-initializers)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 12
   AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # GCC 12 at -O3 reports impossible overlaps inside std::string's own copies
  # ("literal" + string) as -Wrestrict (GCC bug 105651, fixed in 13); the
  # warning says nothing about our code there.
  list(APPEND ZB_WARNINGS -Wno-restrict)
endif()
set(ZB_SAN_FLAGS "")
if(ZB_SANITIZE STREQUAL "address")
  set(ZB_SAN_FLAGS -fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
elseif(ZB_SANITIZE STREQUAL "thread")
  set(ZB_SAN_FLAGS -fsanitize=thread -fno-omit-frame-pointer)
endif()
if(ZB_SAN_FLAGS)
  add_compile_options(${ZB_SAN_FLAGS})
  add_link_options(${ZB_SAN_FLAGS})
endif()
if(ZB_FUZZ)
  # Undefined behaviour must stop the fuzzer like a crash, not scroll past.
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

function(zb_warnings target)
  target_compile_options(${target} PRIVATE ${ZB_WARNINGS})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    target_compile_options(${target} PRIVATE -Wthread-safety -Wno-unused-private-field)
  elseif(CMAKE_UNITY_BUILD)
    # A unity source includes the .cpp files, so GCC takes their anonymous
    # namespaces for a header's.
    target_compile_options(${target} PRIVATE -Wno-subobject-linkage)
  endif()
endfunction()

function(zb_add_sources target)
  set(all)
  foreach(dir IN LISTS ARGN)
    file(GLOB_RECURSE srcs CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${dir}/*.cpp)
    list(APPEND all ${srcs})
  endforeach()
  if(NOT all)
    # A layer not written yet: keep the target so others can name it.
    file(WRITE ${CMAKE_BINARY_DIR}/empty/${target}.cpp "// empty layer\n")
    set(all ${CMAKE_BINARY_DIR}/empty/${target}.cpp)
  endif()
  target_sources(${target} PRIVATE ${all})
endfunction()

function(zb_layer name dir)
  add_library(${name} STATIC)
  zb_add_sources(${name} ${dir})
  target_include_directories(${name} PUBLIC ${CMAKE_SOURCE_DIR}/src)
  target_link_libraries(${name} PUBLIC ${ARGN})
  target_compile_definitions(${name} PRIVATE ZB_BUILD_LOCALEDIR="${ZB_BUILD_LOCALEDIR}" ZB_INSTALL_LOCALEDIR="${ZB_INSTALL_LOCALEDIR}")
  zb_warnings(${name})
endfunction()

function(zb_system_library name)
  cmake_parse_arguments(A "" "" "DIRS;DEPS" ${ARGN})
  add_library(${name} STATIC)
  zb_add_sources(${name} ${A_DIRS})
  target_include_directories(${name} PUBLIC ${CMAKE_SOURCE_DIR}/src)
  target_link_libraries(${name} PUBLIC ${A_DEPS})
  zb_warnings(${name})
endfunction()
