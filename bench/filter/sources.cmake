# Benchmark sources of this subsystem: target_sources(kvlcv_bench PRIVATE ${CMAKE_CURRENT_LIST_DIR}/<fam>_bench.cc)
target_sources(kvlcv_bench PRIVATE ${CMAKE_CURRENT_LIST_DIR}/pipeline_bench.cc)
target_sources(kvlcv_bench PRIVATE ${CMAKE_CURRENT_LIST_DIR}/gradient_bench.cc)
target_sources(kvlcv_bench PRIVATE ${CMAKE_CURRENT_LIST_DIR}/deriv_bench.cc)
