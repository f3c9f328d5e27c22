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
