# The mpv panes themselves.
set(_mpv_lsan "LSAN_OPTIONS=suppressions=${CMAKE_CURRENT_LIST_DIR}/mpv-lsan.supp")
# Real libmpv drawing into native child windows of one Quick window under Xvfb.
# Playing files makes libmpv probe hardware decoders in libraries that it loads
# and unloads again; what they keep can no longer be named, so the leak check
# stays with tst_NativeSurface and tst_VideoPlayer, which make and drop panes too.
kutils_add_test(tst_MPVObject SOURCES tst_MPVObject.cpp LIBS kutils_playback Qt6::Quick GUI
                ENV ASAN_OPTIONS=detect_leaks=0)
# The same native surface at a device pixel ratio of 2.
kutils_add_test(tst_NativeSurface SOURCES tst_NativeSurface.cpp LIBS kutils_playback Qt6::Quick GUI
                ENV QT_SCALE_FACTOR=2 ${_mpv_lsan})
