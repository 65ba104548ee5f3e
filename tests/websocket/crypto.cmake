sylv_add_gtest(crypto_tests SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/crypto_test.cpp LIBS sylvwebsocket)
