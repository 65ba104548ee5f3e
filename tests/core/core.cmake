sylv_add_gtest(core_tests
    SOURCES
        ${CMAKE_CURRENT_LIST_DIR}/logger_test.cpp
        ${CMAKE_CURRENT_LIST_DIR}/dynamic_buffer_test.cpp
        ${CMAKE_CURRENT_LIST_DIR}/linked_list_test.cpp
        ${CMAKE_CURRENT_LIST_DIR}/misc_test.cpp
    LIBS sylvcore)
