# The two-pane player and the single-clip player. The end-to-end tests build
# their QML scene over the types of this build under the module's own name.
# They play files through real libmpv, whose hardware-decoder probing leaks in
# libraries it unloads again (see Mpv.cmake): no leak check there.
kutils_add_test(tst_VideoPlayer SOURCES tst_VideoPlayer.cpp LIBS kutils_playback Qt6::Quick TIMEOUT 120)
# It starts ffmpeg beside its threads, which ThreadSanitizer refuses by default.
kutils_add_test(tst_VideoPlayerMpv SOURCES tst_VideoPlayerMpv.cpp LIBS kutils_playback Qt6::Quick Qt6::Qml GUI SERIAL
                TIMEOUT 180 ENV ASAN_OPTIONS=detect_leaks=0
                TSAN_OPTIONS=die_after_fork=0:suppressions=${CMAKE_CURRENT_LIST_DIR}/tsan.supp)
kutils_add_test(tst_IsolatedPlayer SOURCES tst_IsolatedPlayer.cpp LIBS kutils_playback Qt6::Quick Qt6::Qml GUI SERIAL
                TIMEOUT 120 ENV ASAN_OPTIONS=detect_leaks=0)
