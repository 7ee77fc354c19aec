corvane_bench(storage_bench SOURCES storage_bench.cpp LIBS corvane_storage)
