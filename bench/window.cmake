# Start-up of the window with a large list, and the cost of refreshing it.
add_executable(window_bench window_bench.cpp)
target_link_libraries(window_bench PRIVATE corvane_ui)
corvane_warnings(window_bench)
