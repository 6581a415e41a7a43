# Third-party libraries, all from Debian's archive.
find_package(PkgConfig REQUIRED)
pkg_check_modules(MPV REQUIRED IMPORTED_TARGET mpv)
# Debian's CMake package file for libzip wants extra tool packages: pkg-config is enough.
pkg_check_modules(LIBZIP REQUIRED IMPORTED_TARGET libzip)
pkg_check_modules(FFMPEG REQUIRED IMPORTED_TARGET
  libavformat libavcodec libavutil libswscale libavfilter libswresample)
find_package(OpenSSL REQUIRED)
find_package(nlohmann_json 3.11 REQUIRED)
find_package(X11 REQUIRED)
find_package(Threads REQUIRED)

# cpp-httplib: header plus Debian's compiled part.
find_path(HTTPLIB_INCLUDE_DIR httplib.h REQUIRED)
find_library(HTTPLIB_LIBRARY NAMES cpp-httplib)
add_library(kutils_httplib INTERFACE)
target_include_directories(kutils_httplib INTERFACE ${HTTPLIB_INCLUDE_DIR})
target_compile_definitions(kutils_httplib INTERFACE CPPHTTPLIB_OPENSSL_SUPPORT)
target_link_libraries(kutils_httplib INTERFACE OpenSSL::SSL OpenSSL::Crypto Threads::Threads)
if(HTTPLIB_LIBRARY)
  target_link_libraries(kutils_httplib INTERFACE ${HTTPLIB_LIBRARY})
endif()

# OpenCV core and imgproc ship neither pkg-config nor CMake files on Debian 12.
find_path(OPENCV_INCLUDE_DIR opencv2/core.hpp PATH_SUFFIXES opencv4 REQUIRED)
find_library(OPENCV_CORE_LIBRARY opencv_core REQUIRED)
find_library(OPENCV_IMGPROC_LIBRARY opencv_imgproc REQUIRED)
add_library(kutils_opencv INTERFACE)
target_include_directories(kutils_opencv SYSTEM INTERFACE ${OPENCV_INCLUDE_DIR})
target_link_libraries(kutils_opencv INTERFACE ${OPENCV_IMGPROC_LIBRARY} ${OPENCV_CORE_LIBRARY})

find_program(XVFB_PROGRAM Xvfb)
find_program(FFMPEG_PROGRAM ffmpeg)
find_program(OIIOTOOL_PROGRAM oiiotool)

# The product runs oiiotool from the application's folder: every test, bench
# and demo executable gets a link to the one found beside it.
function(kutils_place_oiiotool target)
  if(OIIOTOOL_PROGRAM)
    add_custom_command(TARGET ${target} POST_BUILD
      COMMAND ${CMAKE_COMMAND} -E create_symlink ${OIIOTOOL_PROGRAM} $<TARGET_FILE_DIR:${target}>/oiiotool
      VERBATIM)
  endif()
endfunction()
