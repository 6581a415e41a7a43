# TVideoView and TVideoInfo on real media that ffmpeg makes while the tests
# run. The view's test also takes the frame fetcher, whose threads are worth
# a ThreadSanitizer run.
kutils_add_test(tst_TVideoView SOURCES tst_TVideoView.cpp LIBS kutils_playback ENV TSAN_OPTIONS=die_after_fork=0)
# Through the built plugin, as the front end uses it: no kutils archive linked.
kutils_add_test(tst_TVideoInfo SOURCES tst_TVideoInfo.cpp LIBS Qt6::Qml)
add_dependencies(tst_TVideoInfo kutils)
