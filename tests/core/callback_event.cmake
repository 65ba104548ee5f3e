sylv_add_gtest(callback_event_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/callback_event_test.cpp
    LIBS sylvcore)
