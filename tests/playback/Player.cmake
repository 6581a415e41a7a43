# The two-pane player and the single-clip player. The handler tests link the
# playback archive; the end-to-end tests load the plugin as the application does.
kutils_add_test(tst_VideoPlayer SOURCES tst_VideoPlayer.cpp LIBS kutils_playback Qt6::Quick TIMEOUT 120)
kutils_add_test(tst_VideoPlayerMpv SOURCES tst_VideoPlayerMpv.cpp LIBS Qt6::Quick Qt6::Qml GUI SERIAL TIMEOUT 180)
kutils_add_test(tst_IsolatedPlayer SOURCES tst_IsolatedPlayer.cpp LIBS Qt6::Quick Qt6::Qml GUI SERIAL TIMEOUT 120)
foreach(_test tst_VideoPlayerMpv tst_IsolatedPlayer)
  if(TARGET ${_test})
    add_dependencies(${_test} kutils)
  endif()
endforeach()
