# The libraries the project stands on, as imported targets. All come from the system's package manager.
find_package(Threads REQUIRED)
find_package(log4cplus REQUIRED)
find_package(jsoncpp REQUIRED)
if(NOT WIN32)
  find_package(OpenSSL REQUIRED COMPONENTS Crypto)
endif()

# The releases of ISA-L that distributions carry have no CMake package.
find_path(ISAL_INCLUDE_DIR isa-l/crc.h REQUIRED)
find_library(ISAL_LIBRARY NAMES isal isa-l REQUIRED)
add_library(veyra_isal INTERFACE)
target_include_directories(veyra_isal SYSTEM INTERFACE ${ISAL_INCLUDE_DIR})
target_link_libraries(veyra_isal INTERFACE ${ISAL_LIBRARY})

find_path(CLI11_INCLUDE_DIR CLI/CLI.hpp)
