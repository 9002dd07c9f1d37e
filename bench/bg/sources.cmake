# Benchmark sources of this subsystem: target_sources(kvlcv_bench PRIVATE ${CMAKE_CURRENT_LIST_DIR}/<fam>_bench.cc)

# Foreground models.
# The peers are OpenCV's mixture subtractors (video and bgsegm modules); the photograph is read
# with the tool's image reader.
target_sources(kvlcv_bench PRIVATE ${CMAKE_CURRENT_LIST_DIR}/foreground_bench.cc)
target_link_libraries(kvlcv_bench PRIVATE kvlcli_io)
target_compile_definitions(kvlcv_bench PRIVATE KVL_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
if(OpenCV_FOUND AND TARGET opencv_bgsegm AND TARGET opencv_video)
  target_link_libraries(kvlcv_bench PRIVATE opencv_bgsegm opencv_video)
  target_compile_definitions(kvlcv_bench PRIVATE KVL_HAVE_OPENCV_BGSEGM=1)
endif()
