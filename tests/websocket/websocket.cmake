# WebSocket framing and client handshake: bytes first, then a real loopback
# connection.
sylv_add_gtest(websocket_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/bytes_test.cpp ${CMAKE_CURRENT_LIST_DIR}/loopback_test.cpp
    LIBS sylvwebsocket)
