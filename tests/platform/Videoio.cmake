# The video I/O layer, on real media that ffmpeg makes while the tests run.
kutils_add_test(tst_FFReader SOURCES tst_FFReader.cpp LIBS kutils_videoio TIMEOUT 240)
kutils_add_test(tst_FrameConverter SOURCES tst_FrameConverter.cpp LIBS kutils_videoio)
kutils_add_test(tst_FFReaderUtils SOURCES tst_FFReaderUtils.cpp LIBS kutils_videoio)
kutils_add_test(tst_VideoioServices SOURCES tst_VideoioServices.cpp LIBS kutils_videoio)
