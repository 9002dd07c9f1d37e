# Benchmark sources of this subsystem: target_sources(kvlcv_bench PRIVATE ${CMAKE_CURRENT_LIST_DIR}/<fam>_bench.cc)
target_sources(kvlcv_bench PRIVATE ${CMAKE_CURRENT_LIST_DIR}/motion_history_bench.cc
               ${CMAKE_CURRENT_LIST_DIR}/gauss_pyramid_bench.cc)
# The motion-template peer lives in OpenCV's optflow module, when it is installed.
if(OpenCV_FOUND AND TARGET opencv_optflow)
  target_link_libraries(kvlcv_bench PRIVATE opencv_optflow)
  target_compile_definitions(kvlcv_bench PRIVATE KVL_HAVE_OPENCV_OPTFLOW=1)
endif()
