if(NOT WIN32)
    add_benchmark(threads_benchmark SOURCES threads_benchmark.cpp)
endif()
