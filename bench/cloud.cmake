corvane_bench(cloud_bench SOURCES cloud_bench.cpp LIBS corvane_cloud)
