vtd_fuzz(fuzz_image LIBRARIES velto_objects SOURCES FuzzImage.cpp)
