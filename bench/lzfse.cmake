corvane_bench(lzfse_bench SOURCES lzfse_bench.cpp LIBS corvane_lzfse)
