# The video I/O layer, on real media that ffmpeg makes while the tests run.
kutils_add_test(tst_Videoio SOURCES tst_Videoio.cpp LIBS kutils_videoio TIMEOUT 240)
