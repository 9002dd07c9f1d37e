# Benchmark sources of this subsystem: target_sources(kvlcv_bench PRIVATE ${CMAKE_CURRENT_LIST_DIR}/<fam>_bench.cc)
target_sources(kvlcv_bench PRIVATE ${CMAKE_CURRENT_LIST_DIR}/minmax_bench.cc
               ${CMAKE_CURRENT_LIST_DIR}/morph_bench.cc ${CMAKE_CURRENT_LIST_DIR}/morph_runs_bench.cc
               ${CMAKE_CURRENT_LIST_DIR}/morph_1u_bench.cc)
