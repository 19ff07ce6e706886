# The AES-256 key of encrypted message bodies. It is fixed in the build: every process of one bus needs the same.
set(development_key 8f1c0de47a2b5d3396e0c4f87b1a62d95ce83f70a4d6b12e0f9b48c7d35e6a11)
set(VEYRASVC_CIPHER_KEY ${development_key} CACHE STRING "AES-256 key for encrypted bodies, 64 hexadecimal digits")

string(LENGTH "${VEYRASVC_CIPHER_KEY}" key_length)
if(NOT key_length EQUAL 64 OR NOT VEYRASVC_CIPHER_KEY MATCHES "^[0-9A-Fa-f]+$")
  message(FATAL_ERROR "VEYRASVC_CIPHER_KEY must be 64 hexadecimal digits")
endif()
set(VEYRASVC_DEVELOPMENT_KEY OFF)
if(VEYRASVC_CIPHER_KEY STREQUAL development_key)
  set(VEYRASVC_DEVELOPMENT_KEY ON)
  message(WARNING "VEYRASVC_CIPHER_KEY is the development key, which everybody knows; set your own before you ship")
endif()

string(REGEX REPLACE "([0-9A-Fa-f][0-9A-Fa-f])" "0x\\1," cipher_key_bytes "${VEYRASVC_CIPHER_KEY}")
file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/generated/CipherKey.inc CONTENT "${cipher_key_bytes}\n")
