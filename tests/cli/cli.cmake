sylv_add_gtest(cli_tests
    SOURCES
        ${CMAKE_CURRENT_LIST_DIR}/front_end_test.cpp
        ${CMAKE_CURRENT_LIST_DIR}/requests_test.cpp
    LIBS sylvcli)
target_compile_definitions(cli_tests PRIVATE SYLV_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
