# Benchmark sources of this subsystem: target_sources(kvlcv_bench PRIVATE ${CMAKE_CURRENT_LIST_DIR}/<fam>_bench.cc)

# Distance transforms: mask query and chamfer transforms.

# Distance transforms: exact Euclidean transform and fast marching.
target_sources(kvlcv_bench PRIVATE ${CMAKE_CURRENT_LIST_DIR}/dist_exact_bench.cc)
