vtd_fuzz(fuzz_xml_plist LIBRARIES platform SOURCES FuzzXmlPlist.cpp)
