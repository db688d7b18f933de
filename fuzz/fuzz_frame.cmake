vtd_fuzz(fuzz_frame LIBRARIES platform SOURCES FuzzFrame.cpp)
