# The video I/O layer and its live-render pieces, on real media that ffmpeg
# makes while the test runs. The clips come from a child process started after
# Qt's threads, which ThreadSanitizer refuses by default.
kutils_add_test(tst_Videoio SOURCES tst_Videoio.cpp LIBS kutils_videoio TIMEOUT 240 ENV TSAN_OPTIONS=die_after_fork=0)
