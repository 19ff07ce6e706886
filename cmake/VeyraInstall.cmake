# cmake --install: the libraries, the headers that callers include, the operator's program, and what lets a stranger's
# project find them (find_package(veyrasvc) and pkg-config).
include(CMakePackageConfigHelpers)

set(public_headers
  logging/Export.h
  logging/Logger.h
  veyrasvc/bus/IPCMessageExport.h
  veyrasvc/bus/ModuleId.h
  veyrasvc/diagnosis/BSODClient.h
  veyrasvc/diagnosis/DFSClient.h
  veyrasvc/diagnosis/DFSClientC.h
  veyrasvc/diagnosis/DetectParamDecoration.h
  veyrasvc/diagnosis/DiagnosisDeviceInfo.h
  veyrasvc/platform/Export.h
  veyrasvc/platform/Win32.h
  veyrasvc/stream/DataStream.h
  veyrasvc/stream/FileItems.h
  veyrasvc/stream/SimpleStream.h
  veyrasvc/stream/HashUtils.h
  veyrasvc/util/FileItems.h
  veyrasvc/util/HashUtils.h
  veyrasvc/util/Locks.h
  veyrasvc/util/SystemVersion.h
  veyrasvc/util/ThreadSafety.h)
if(NOT WIN32)
  list(APPEND public_headers veyrasvc/platform/posix/Win32Subset.h veyrasvc/platform/posix/Win32Types.h)
endif()
foreach(header ${public_headers})
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES ${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${folder})
endforeach()

set_target_properties(veyrasvc_logging PROPERTIES EXPORT_NAME logging)
install(TARGETS veyrasvc veyrasvc_logging EXPORT veyrasvcTargets)
# An installed program finds the libraries it was installed with, wherever that is.
file(RELATIVE_PATH library_path /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
set_target_properties(veyra veyra-diagnosisd veyra-crashdumpd PROPERTIES INSTALL_RPATH "$ORIGIN/${library_path}")
set_target_properties(veyrasvc veyrasvc_logging PROPERTIES INSTALL_RPATH "$ORIGIN")
install(TARGETS veyra veyra-diagnosisd veyra-crashdumpd)

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/veyrasvc)
install(EXPORT veyrasvcTargets NAMESPACE veyrasvc:: DESTINATION ${package_folder})
configure_package_config_file(cmake/veyrasvcConfig.cmake.in ${CMAKE_BINARY_DIR}/generated/veyrasvcConfig.cmake
  INSTALL_DESTINATION ${package_folder})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/generated/veyrasvcConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/generated/veyrasvcConfig.cmake
  ${CMAKE_BINARY_DIR}/generated/veyrasvcConfigVersion.cmake DESTINATION ${package_folder})

file(RELATIVE_PATH prefix_from_pkgconfig /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/veyrasvc.pc.in generated/veyrasvc.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/generated/veyrasvc.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# Windows looks for DLLs beside the program.
if(WIN32)
  install(IMPORTED_RUNTIME_ARTIFACTS log4cplus::log4cplus)
endif()
if(MINGW)
  foreach(name libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll)
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${name} OUTPUT_VARIABLE runtime_library
      OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    install(FILES ${runtime_library} DESTINATION ${CMAKE_INSTALL_BINDIR})
  endforeach()
endif()
