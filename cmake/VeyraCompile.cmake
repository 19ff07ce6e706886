# What every target of the project is compiled with.
add_library(veyra_compile INTERFACE)
target_include_directories(veyra_compile INTERFACE ${CMAKE_SOURCE_DIR})

if(MSVC)
  target_compile_options(veyra_compile INTERFACE /W4 /utf-8 /permissive-)
else()
  target_compile_options(veyra_compile INTERFACE -Wall -Wextra -Wpedantic -Wconversion -Wno-sign-conversion -Wshadow
    # Log lines name a source file by its path in the tree, wherever that was built.
    "-fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=")
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    target_compile_options(veyra_compile INTERFACE -Wthread-safety)
  endif()
endif()
if(VEYRASVC_WERROR)
  target_compile_options(veyra_compile INTERFACE $<IF:$<CXX_COMPILER_ID:MSVC>,/WX,-Werror>)
endif()

# asan (with undefined behaviour) or tsan, for everything in the build tree.
set(VEYRASVC_SANITIZER "" CACHE STRING "Sanitizer to build with: empty, asan or tsan")
if(VEYRASVC_SANITIZER STREQUAL "asan")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(VEYRASVC_SANITIZER STREQUAL "tsan")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(VEYRASVC_SANITIZER)
  message(FATAL_ERROR "VEYRASVC_SANITIZER must be empty, asan or tsan, not '${VEYRASVC_SANITIZER}'")
endif()
