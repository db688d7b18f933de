vtd_fuzz(fuzz_requests LIBRARIES vtd_core
    SOURCES FuzzRequests.cpp Cost.cpp HostileWorld.cpp RequestGenerator.cpp ${CMAKE_SOURCE_DIR}/bench/RawConnection.cpp)
