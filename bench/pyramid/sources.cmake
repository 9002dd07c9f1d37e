# Benchmark sources of this subsystem: target_sources(kvlcv_bench PRIVATE ${CMAKE_CURRENT_LIST_DIR}/<fam>_bench.cc)
target_sources(kvlcv_bench PRIVATE ${CMAKE_CURRENT_LIST_DIR}/motion_history_bench.cc
               ${CMAKE_CURRENT_LIST_DIR}/gauss_pyramid_bench.cc)
# The motion-template peer lives in OpenCV's optflow module, when it is installed.
if(OpenCV_FOUND AND TARGET opencv_optflow)
  target_link_libraries(kvlcv_bench PRIVATE opencv_optflow)
  target_compile_definitions(kvlcv_bench PRIVATE KVL_HAVE_OPENCV_OPTFLOW=1)
endif()

# Point tracking: the peer's tracker lives in OpenCV's video module; the photograph is read with
# the tool's image reader.
target_sources(kvlcv_bench PRIVATE ${CMAKE_CURRENT_LIST_DIR}/lk_bench.cc)
target_include_directories(kvlcv_bench PRIVATE ${CMAKE_SOURCE_DIR}/tests)
target_link_libraries(kvlcv_bench PRIVATE kvlcli_io)
target_compile_definitions(kvlcv_bench PRIVATE KVL_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
if(OpenCV_FOUND AND TARGET opencv_video)
  target_link_libraries(kvlcv_bench PRIVATE opencv_video)
  target_compile_definitions(kvlcv_bench PRIVATE KVL_HAVE_OPENCV_VIDEO=1)
endif()
# The agreement of the two trackers on the sample photograph (kvlcv_lk_compare), built with the
# benchmarks when the peer's video module is there.
if(OpenCV_FOUND AND TARGET opencv_video)
  add_executable(kvlcv_lk_compare ${CMAKE_CURRENT_LIST_DIR}/lk_compare.cc)
  target_link_libraries(kvlcv_lk_compare PRIVATE kvlcv kvlcli_io kvl_flags opencv_core opencv_video)
  target_include_directories(kvlcv_lk_compare PRIVATE ${CMAKE_SOURCE_DIR}/tests)
  target_include_directories(kvlcv_lk_compare SYSTEM PRIVATE ${OpenCV_INCLUDE_DIRS})
  target_compile_definitions(kvlcv_lk_compare PRIVATE KVL_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
endif()
