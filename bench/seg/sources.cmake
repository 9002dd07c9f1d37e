# Benchmark sources of this subsystem: target_sources(kvlcv_bench PRIVATE ${CMAKE_CURRENT_LIST_DIR}/<fam>_bench.cc)

# Distance transforms: mask query and chamfer transforms.
target_sources(kvlcv_bench PRIVATE ${CMAKE_CURRENT_LIST_DIR}/dist_chamfer_bench.cc)
target_link_libraries(kvlcv_bench PRIVATE kvlcli_io)
set_source_files_properties(${CMAKE_CURRENT_LIST_DIR}/dist_chamfer_bench.cc PROPERTIES
                            COMPILE_DEFINITIONS "KVL_SOURCE_DIR=\"${CMAKE_SOURCE_DIR}\"")

# Distance transforms: exact Euclidean transform and fast marching.
target_sources(kvlcv_bench PRIVATE ${CMAKE_CURRENT_LIST_DIR}/dist_exact_bench.cc)

# Flood fill.
target_sources(kvlcv_bench PRIVATE ${CMAKE_CURRENT_LIST_DIR}/flood_fill_bench.cc)
set_source_files_properties(${CMAKE_CURRENT_LIST_DIR}/flood_fill_bench.cc PROPERTIES
                            COMPILE_DEFINITIONS "KVL_SOURCE_DIR=\"${CMAKE_SOURCE_DIR}\"")

# Watershed.
target_sources(kvlcv_bench PRIVATE ${CMAKE_CURRENT_LIST_DIR}/watershed_bench.cc)
set_source_files_properties(${CMAKE_CURRENT_LIST_DIR}/watershed_bench.cc PROPERTIES
                            COMPILE_DEFINITIONS "KVL_SOURCE_DIR=\"${CMAKE_SOURCE_DIR}\"")

# Gradient segmentation.
target_sources(kvlcv_bench PRIVATE ${CMAKE_CURRENT_LIST_DIR}/gradient_seg_bench.cc)
set_source_files_properties(${CMAKE_CURRENT_LIST_DIR}/gradient_seg_bench.cc PROPERTIES
                            COMPILE_DEFINITIONS "KVL_SOURCE_DIR=\"${CMAKE_SOURCE_DIR}\"")
