vtd_fuzz(fuzz_rules LIBRARIES vtd_core SOURCES FuzzRules.cpp)
