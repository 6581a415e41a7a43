# The live-render pieces of the video I/O layer: filter graphs, the filtering
# reader and the disk cache, on clips that ffmpeg makes while the tests run.
# The clips come from a child process started after Qt's threads, which
# ThreadSanitizer refuses by default.
kutils_add_test(tst_LiveRender SOURCES tst_LiveRender.cpp LIBS kutils_videoio TIMEOUT 180
                ENV TSAN_OPTIONS=die_after_fork=0)
