vtd_fuzz(fuzz_binary_plist LIBRARIES platform SOURCES FuzzBinaryPlist.cpp)
