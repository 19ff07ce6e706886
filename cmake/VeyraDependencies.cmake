# The libraries the project stands on, as imported targets. All come from the system's package manager.
find_package(Threads REQUIRED)
find_package(log4cplus REQUIRED)
find_package(jsoncpp REQUIRED)
if(NOT WIN32)
  find_package(OpenSSL REQUIRED COMPONENTS Crypto)
endif()

# libdeflate has no CMake package in the releases that distributions carry.
find_path(DEFLATE_INCLUDE_DIR libdeflate.h REQUIRED)
find_library(DEFLATE_LIBRARY NAMES deflate libdeflate REQUIRED)
add_library(veyra_deflate INTERFACE)
target_include_directories(veyra_deflate SYSTEM INTERFACE ${DEFLATE_INCLUDE_DIR})
target_link_libraries(veyra_deflate INTERFACE ${DEFLATE_LIBRARY})

find_path(CLI11_INCLUDE_DIR CLI/CLI.hpp)
