# The live-render pieces of the video I/O layer: filter graphs, the filtering
# reader and the disk cache, on clips that ffmpeg makes while the tests run.
kutils_add_test(tst_LiveRender SOURCES tst_LiveRender.cpp LIBS kutils_videoio TIMEOUT 180)
