# Selects the back end of dbg_output.
#  android: the Android log library (liblog). On Android it is the system's;
#           on Linux it is Debian's android-liblog-dev, which prints
#           logcat-style lines to stderr.
#  stderr:  plain lines on stderr, for targets that have no liblog. Must be
#           asked for explicitly; there is no silent fallback.
add_library(vqx_platform_log INTERFACE)
if(VQX_LOG_BACKEND STREQUAL "android")
  if(ANDROID)
    target_link_libraries(vqx_platform_log INTERFACE log)
  else()
    find_path(VQX_LIBLOG_INCLUDE_DIR android/log.h PATHS /usr/include/android NO_DEFAULT_PATH)
    find_library(VQX_LIBLOG_LIBRARY NAMES log
      PATHS /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android /usr/lib/android
      NO_DEFAULT_PATH)
    if(NOT VQX_LIBLOG_INCLUDE_DIR OR NOT VQX_LIBLOG_LIBRARY)
      message(FATAL_ERROR
        "The Android log library was not found. Install Debian's package "
        "android-liblog-dev (apt-get install android-liblog-dev), or configure "
        "with -DVQX_LOG_BACKEND=stderr to print debug output to stderr instead.")
    endif()
    target_include_directories(vqx_platform_log INTERFACE ${VQX_LIBLOG_INCLUDE_DIR})
    target_link_libraries(vqx_platform_log INTERFACE ${VQX_LIBLOG_LIBRARY})
  endif()
  target_compile_definitions(vqx_platform_log INTERFACE VQX_LOG_ANDROID=1)
elseif(VQX_LOG_BACKEND STREQUAL "stderr")
  target_compile_definitions(vqx_platform_log INTERFACE VQX_LOG_STDERR=1)
else()
  message(FATAL_ERROR "VQX_LOG_BACKEND must be 'android' or 'stderr', not '${VQX_LOG_BACKEND}'")
endif()

# VQX_INSTALL_EXTRA_RUNPATH: run path entries the installed library carries
# after $ORIGIN, for libraries the target's loader does not find on its own.
# Debian keeps liblog (android-liblog) in a directory of its own,
# /usr/lib/<multiarch>/android, which is neither in the loader's cache nor in
# its default path (Debian's own programs that use it carry that directory
# in their run path). On such a native build the default is that directory,
# announced at configuration; on Android, in a cross build (a device image),
# with the stderr back end, or when liblog lies in a directory the toolchain
# searches anyway, the default is empty. Set it explicitly (an empty string
# for none) when the target keeps liblog elsewhere.
set(vqx_extra_runpath_default "")
if(VQX_LOG_BACKEND STREQUAL "android" AND NOT ANDROID AND NOT CMAKE_CROSSCOMPILING)
  get_filename_component(vqx_liblog_dir "${VQX_LIBLOG_LIBRARY}" DIRECTORY)
  if(NOT vqx_liblog_dir IN_LIST CMAKE_C_IMPLICIT_LINK_DIRECTORIES
     AND NOT vqx_liblog_dir IN_LIST CMAKE_PLATFORM_IMPLICIT_LINK_DIRECTORIES)
    set(vqx_extra_runpath_default "${vqx_liblog_dir}")
  endif()
endif()
set(VQX_INSTALL_EXTRA_RUNPATH "${vqx_extra_runpath_default}" CACHE STRING
  "Run path entries of the installed libVQXScanInterface.so after \$ORIGIN (;-list), e.g. the directory of a liblog the loader does not find by itself")
if(VQX_INSTALL_EXTRA_RUNPATH)
  message(STATUS "Installed libVQXScanInterface.so run path: $ORIGIN;${VQX_INSTALL_EXTRA_RUNPATH} "
    "(VQX_INSTALL_EXTRA_RUNPATH; set it empty when the target's loader finds liblog itself)")
endif()
