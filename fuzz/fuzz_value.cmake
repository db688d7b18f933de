vtd_fuzz(fuzz_value LIBRARIES platform SOURCES FuzzValue.cpp)
