# TVideoView and TVideoInfo on real media that ffmpeg makes while the tests run.
kutils_add_test(tst_TVideoView SOURCES tst_TVideoView.cpp LIBS kutils_playback)
