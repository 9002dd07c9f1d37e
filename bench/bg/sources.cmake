# Benchmark sources of this subsystem: target_sources(kvlcv_bench PRIVATE ${CMAKE_CURRENT_LIST_DIR}/<fam>_bench.cc)

# Foreground models.
