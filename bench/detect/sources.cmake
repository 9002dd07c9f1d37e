# Benchmark sources of this subsystem: target_sources(kvlcv_bench PRIVATE ${CMAKE_CURRENT_LIST_DIR}/<fam>_bench.cc)
target_sources(kvlcv_bench PRIVATE ${CMAKE_CURRENT_LIST_DIR}/haar_bench.cc
               ${CMAKE_CURRENT_LIST_DIR}/integral_bench.cc)

# The detection component (tools/detect): the whole search of a photograph against the peer's
# cascade detector, and the program that compares their boxes (kvlcv_detect_compare).
target_sources(kvlcv_bench PRIVATE ${CMAKE_CURRENT_LIST_DIR}/detect_bench.cc)
target_link_libraries(kvlcv_bench PRIVATE kvlcv_detect kvlcli_io kvlcv_internal)
target_compile_definitions(kvlcv_bench PRIVATE KVL_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
set_source_files_properties(${CMAKE_CURRENT_LIST_DIR}/detect_bench.cc PROPERTIES COMPILE_OPTIONS
                            "-fexceptions;-frtti")
if(OpenCV_FOUND)
  add_executable(kvlcv_detect_compare ${CMAKE_CURRENT_LIST_DIR}/detect_compare.cc)
  target_link_libraries(kvlcv_detect_compare PRIVATE kvlcv_detect kvlcv kvlcli_io kvl_flags ${OpenCV_LIBS})
  target_include_directories(kvlcv_detect_compare SYSTEM PRIVATE ${OpenCV_INCLUDE_DIRS})
  target_compile_definitions(kvlcv_detect_compare PRIVATE KVL_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
endif()
