kutils_add_test(tst_Kzutils SOURCES ${CMAKE_CURRENT_LIST_DIR}/tst_Kzutils.cpp LIBS kutils_platform)
