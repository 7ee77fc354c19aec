# lzfse-tool: compress or decompress one file with our codec (checks against other LZFSE tools).
add_executable(lzfse-tool lzfse_tool.cpp)
target_link_libraries(lzfse-tool PRIVATE corvane_lzfse)
corvane_warnings(lzfse-tool)
