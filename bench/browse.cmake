# Browsing a large history in the window: Commits, a wide directory, a large source file.
add_executable(browse_bench browse_bench.cpp)
target_link_libraries(browse_bench PRIVATE corvane_ui)
corvane_warnings(browse_bench)
